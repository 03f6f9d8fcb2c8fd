#pragma once

#include <link.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace quarn::calvane {

/// The symbols that a shared object in the ELF format exports, read from the bytes of its file.
///
/// Every place and size that the file names is checked against the file; arithmetic is done with 64 bits.
/// Formats: "System V Application Binary Interface", chapters 4 and 5; the GNU hash table as in <elf.h>.
///
/// Ownership: `bytes` stays the caller's and must outlive this object.
/// Errors:    Exception, of which the text tells only what is wrong.
class ElfFile {
public:
    explicit ElfFile(const std::string& bytes);

    struct Symbol {
        std::string name;
        uint64_t address;
        uint64_t size;
    };
    /// What is defined in this file and offered to others, in the order of its symbol table. Of names longer
    /// than 256 bytes, the beginning.
    std::vector<Symbol> ReadExportedSymbols() const;

    /// Copies `size` bytes that will lie at `address` when the object is loaded. False when the file does not
    /// hold them, for example since they are zeros that it need not hold.
    bool ReadLoaded(uint64_t address, void* target, size_t size) const;

private:
    struct DynamicSection {
        uint64_t symbols = 0;
        uint64_t strings = 0;
        uint64_t stringsSize = 0;
        uint64_t hash = 0;
        uint64_t gnuHash = 0;
    };

    void CheckHeader() const;
    void ReadProgramHeaders();
    void ReadDynamicSection(const ElfW(Phdr) & header);
    uint64_t CountSymbols() const;
    uint64_t CountGnuHashedSymbols() const;
    uint32_t ReadHashWord(uint64_t address) const;

    /// The bytes that will lie at `address`.
    const char* FindLoaded(uint64_t address, uint64_t size, const char* what) const;
    const char* TryFindLoaded(uint64_t address, uint64_t size) const;
    template <typename Type>
    Type ReadAt(uint64_t offset) const;

    const std::string& bytes_;
    ElfW(Ehdr) header_{};
    std::vector<ElfW(Phdr)> segments_; // Those that are loaded.
    DynamicSection dynamic_;
};

} // namespace quarn::calvane
