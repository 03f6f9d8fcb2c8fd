#include <dlfcn.h>

#include <algorithm>

#include "calvane/config/internal/ElfFile.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

namespace {

constexpr uint64_t kSymbolSize = sizeof(ElfW(Sym));
constexpr size_t kMaxNameBytes = 256;
constexpr unsigned int kMaxProgramHeaders = 128; // Linkers make about ten.

// The header of the library that holds this very code: what it is, a module has to be.
const ElfW(Ehdr) & OwnHeader() {
    Dl_info library{};
    if (dladdr(reinterpret_cast<const void*>(&OwnHeader), &library) == 0) {
        throw osa::Exception("this process cannot find its own libraries");
    }
    return *static_cast<const ElfW(Ehdr)*>(library.dli_fbase);
}

bool IsExported(const ElfW(Sym) & symbol) {
    const unsigned int binding = symbol.st_info >> 4U; // As ELF32_ST_BIND and ELF64_ST_BIND do.
    return symbol.st_shndx != SHN_UNDEF && (binding == STB_GLOBAL || binding == STB_WEAK);
}

} // namespace

ElfFile::ElfFile(const std::string& bytes) : bytes_(bytes) {
    if (bytes.compare(0, SELFMAG, ELFMAG) != 0) {
        throw osa::Exception("it is not an ELF file");
    }
    // The class comes before all else, since the sizes of everything behind it depend on it.
    if (bytes.size() < EI_NIDENT || bytes[EI_CLASS] != static_cast<char>(OwnHeader().e_ident[EI_CLASS]) ||
        bytes[EI_DATA] != static_cast<char>(OwnHeader().e_ident[EI_DATA])) {
        throw osa::Exception("it is built for another kind of processor (word size or byte order)");
    }
    header_ = ReadAt<ElfW(Ehdr)>(0);
    CheckHeader();
    ReadProgramHeaders();
}

void ElfFile::CheckHeader() const {
    if (header_.e_machine != OwnHeader().e_machine) {
        throw osa::Exception("it is built for another kind of processor (ELF machine %u, not %u)",
                             static_cast<unsigned int>(header_.e_machine),
                             static_cast<unsigned int>(OwnHeader().e_machine));
    }
    if (header_.e_type != ET_DYN) {
        throw osa::Exception("it is no shared object (ELF type %u)",
                             static_cast<unsigned int>(header_.e_type));
    }
    if (header_.e_phentsize != sizeof(ElfW(Phdr))) {
        throw osa::Exception("its program headers have the wrong size");
    }
    if (header_.e_phnum > kMaxProgramHeaders) {
        throw osa::Exception("it has too many program headers (%u)",
                             static_cast<unsigned int>(header_.e_phnum));
    }
}

void ElfFile::ReadProgramHeaders() {
    bool hasDynamicSection = false;
    ElfW(Phdr) dynamic{};
    for (uint64_t i = 0; i != header_.e_phnum; ++i) {
        const auto segment = ReadAt<ElfW(Phdr)>(header_.e_phoff + i * sizeof(ElfW(Phdr)));
        if (segment.p_type == PT_LOAD) {
            segments_.push_back(segment);
        } else if (segment.p_type == PT_DYNAMIC) {
            dynamic = segment;
            hasDynamicSection = true;
        }
    }
    if (!hasDynamicSection) {
        throw osa::Exception("it has no dynamic section");
    }
    ReadDynamicSection(dynamic);
}

void ElfFile::ReadDynamicSection(const ElfW(Phdr) & header) {
    for (uint64_t done = 0; done + sizeof(ElfW(Dyn)) <= header.p_filesz; done += sizeof(ElfW(Dyn))) {
        const auto entry = ReadAt<ElfW(Dyn)>(uint64_t{header.p_offset} + done);
        switch (entry.d_tag) {
            case DT_NULL:
                return;
            case DT_SYMTAB:
                dynamic_.symbols = entry.d_un.d_ptr;
                break;
            case DT_STRTAB:
                dynamic_.strings = entry.d_un.d_ptr;
                break;
            case DT_STRSZ:
                dynamic_.stringsSize = entry.d_un.d_val;
                break;
            case DT_HASH:
                dynamic_.hash = entry.d_un.d_ptr;
                break;
            case DT_GNU_HASH:
                dynamic_.gnuHash = entry.d_un.d_ptr;
                break;
            default:
                break;
        }
    }
}

std::vector<ElfFile::Symbol> ElfFile::ReadExportedSymbols() const {
    const uint64_t count = CountSymbols();
    const char* const table = FindLoaded(dynamic_.symbols, count * kSymbolSize, "symbol table");
    const char* const names = FindLoaded(dynamic_.strings, dynamic_.stringsSize, "table of names");
    std::vector<Symbol> exported;
    for (uint64_t i = 1; i < count; ++i) { // The first one is no symbol.
        ElfW(Sym) symbol{};
        std::memcpy(&symbol, table + i * kSymbolSize, sizeof symbol);
        if (IsExported(symbol) && symbol.st_name < dynamic_.stringsSize) {
            const uint64_t left = dynamic_.stringsSize - symbol.st_name;
            const size_t room = left < kMaxNameBytes ? static_cast<size_t>(left) : kMaxNameBytes;
            exported.push_back({std::string(names + symbol.st_name, strnlen(names + symbol.st_name, room)),
                                symbol.st_value, symbol.st_size});
        }
    }
    return exported;
}

// Nothing in the file says outright how many symbols there are; the hash tables have to know.
uint64_t ElfFile::CountSymbols() const {
    if (dynamic_.hash != 0) {
        return ReadHashWord(dynamic_.hash + sizeof(uint32_t));
    }
    return dynamic_.gnuHash != 0 ? CountGnuHashedSymbols() : 0;
}

// Four words (number of buckets, first symbol, words of the filter, shift), the filter, the buckets, and one
// word for each symbol from the first on, of which the lowest bit marks the last one of a bucket.
uint64_t ElfFile::CountGnuHashedSymbols() const {
    const uint64_t bucketCount = ReadHashWord(dynamic_.gnuHash);
    const uint64_t first = ReadHashWord(dynamic_.gnuHash + 4);
    const uint64_t buckets = dynamic_.gnuHash + 16 + ReadHashWord(dynamic_.gnuHash + 8) * sizeof(ElfW(Addr));
    const uint64_t chains = buckets + bucketCount * 4;
    uint64_t last = 0;
    for (uint64_t i = 0; i < bucketCount; ++i) {
        last = std::max<uint64_t>(last, ReadHashWord(buckets + i * 4));
    }
    if (last < first || last == 0) {
        return first; // All buckets are empty.
    }
    while ((ReadHashWord(chains + (last - first) * 4) & 1U) == 0) {
        ++last;
    }
    return last + 1;
}

bool ElfFile::ReadLoaded(uint64_t address, void* target, size_t size) const {
    const char* const bytes = TryFindLoaded(address, size);
    if (bytes != nullptr) {
        std::memcpy(target, bytes, size);
    }
    return bytes != nullptr;
}

// Null when they do not all lie in the file.
const char* ElfFile::TryFindLoaded(uint64_t address, uint64_t size) const {
    for (const ElfW(Phdr) & segment : segments_) {
        const uint64_t begin = address - segment.p_vaddr; // Huge when the address lies before.
        if (begin > segment.p_filesz || segment.p_filesz - begin < size) {
            continue;
        }
        const uint64_t offset = segment.p_offset + begin;
        const bool isInFile = offset >= begin && offset <= bytes_.size() && bytes_.size() - offset >= size;
        return isInFile ? bytes_.data() + offset : nullptr;
    }
    return nullptr;
}

const char* ElfFile::FindLoaded(uint64_t address, uint64_t size, const char* what) const {
    const char* const bytes = TryFindLoaded(address, size);
    if (bytes == nullptr) {
        throw osa::Exception("its %s lies outside of the file", what);
    }
    return bytes;
}

uint32_t ElfFile::ReadHashWord(uint64_t address) const {
    uint32_t word = 0;
    std::memcpy(&word, FindLoaded(address, sizeof word, "hash table"), sizeof word);
    return word;
}

template <typename Type>
Type ElfFile::ReadAt(uint64_t offset) const {
    if (offset > bytes_.size() || bytes_.size() - offset < sizeof(Type)) {
        throw osa::Exception("it is cut short");
    }
    Type value{};
    std::memcpy(&value, bytes_.data() + offset, sizeof value);
    return value;
}

} // namespace quarn::calvane
