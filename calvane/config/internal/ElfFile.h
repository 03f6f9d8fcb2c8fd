#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct Elf;

namespace quarn::calvane {

/// The symbols that a shared object in the ELF format exports, read from the bytes of its file with libelf.
///
/// Ownership: `bytes` stays the caller's and must outlive this object.
/// Errors:    Exception; the text describes the fault without naming the file.
class ElfFile {
public:
    explicit ElfFile(const std::string& bytes);

    struct Symbol {
        std::string name;
        uint64_t address;
        uint64_t size;
    };
    /// What is defined in this file and offered to others, in the order of its table of dynamic symbols.
    std::vector<Symbol> ReadExportedSymbols() const;

    /// Copies `size` bytes that will lie at `address` when the object is loaded. False when the file does not
    /// hold them, for example since they are zeros that it need not hold.
    bool ReadLoaded(uint64_t address, void* target, size_t size) const;

private:
    struct End {
        void operator()(Elf* elf) const;
    };

    void CheckHeader() const;

    const std::string& bytes_;
    const std::unique_ptr<Elf, End> elf_;
};

} // namespace quarn::calvane
