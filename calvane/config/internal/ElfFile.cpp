#include "calvane/config/internal/ElfFile.h"

#include <dlfcn.h>
#include <gelf.h>

#include <cstring>

#include "quarn/osa/Exception.h"

namespace quarn::calvane {

namespace {

// The header of the library that holds this very code: what it is, a module has to be.
const GElf_Ehdr OwnHeader() {
    Dl_info library{};
    if (dladdr(reinterpret_cast<const void*>(&OwnHeader), &library) == 0) {
        throw osa::Exception("this process cannot find its own libraries");
    }
    constexpr size_t kMostBytes = sizeof(Elf64_Ehdr); // More than a header of 32 bits has.
    Elf* const elf = elf_memory(static_cast<char*>(library.dli_fbase), kMostBytes);
    GElf_Ehdr header{};
    const bool isRead = gelf_getehdr(elf, &header) != nullptr;
    elf_end(elf);
    if (!isRead) {
        throw osa::Exception("this process cannot read its own libraries");
    }
    return header;
}

// libelf only reads from what it is given.
Elf* Begin(const std::string& bytes) {
    elf_version(EV_CURRENT);
    return elf_memory(const_cast<char*>(bytes.data()), bytes.size());
}

[[noreturn]] void FailToRead() {
    throw osa::Exception("it cannot be read: %s", elf_errmsg(-1));
}

bool IsExported(const GElf_Sym& symbol) {
    const unsigned int binding = GELF_ST_BIND(symbol.st_info);
    return symbol.st_shndx != SHN_UNDEF && (binding == STB_GLOBAL || binding == STB_WEAK);
}

} // namespace

void ElfFile::End::operator()(Elf* elf) const {
    elf_end(elf);
}

ElfFile::ElfFile(const std::string& bytes) : bytes_(bytes), elf_(Begin(bytes)) {
    if (elf_kind(elf_.get()) != ELF_K_ELF) {
        throw osa::Exception("it is not an ELF file");
    }
    CheckHeader();
}

void ElfFile::CheckHeader() const {
    GElf_Ehdr header{};
    if (gelf_getehdr(elf_.get(), &header) == nullptr) {
        FailToRead();
    }
    const GElf_Ehdr own = OwnHeader();
    if (header.e_ident[EI_CLASS] != own.e_ident[EI_CLASS] ||
        header.e_ident[EI_DATA] != own.e_ident[EI_DATA]) {
        throw osa::Exception("it is built for another kind of processor (word size or byte order)");
    }
    if (header.e_machine != own.e_machine) {
        throw osa::Exception("it is built for another kind of processor (ELF machine %u, not %u)",
                             static_cast<unsigned int>(header.e_machine),
                             static_cast<unsigned int>(own.e_machine));
    }
    if (header.e_type != ET_DYN) {
        throw osa::Exception("it is no shared object (ELF type %u)",
                             static_cast<unsigned int>(header.e_type));
    }
}

std::vector<ElfFile::Symbol> ElfFile::ReadExportedSymbols() const {
    std::vector<Symbol> exported;
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf_.get(), section)) != nullptr;) {
        GElf_Shdr header{};
        if (gelf_getshdr(section, &header) == nullptr) {
            FailToRead();
        }
        if (header.sh_type != SHT_DYNSYM) {
            continue;
        }
        Elf_Data* const table = elf_getdata(section, nullptr);
        if (table == nullptr) {
            FailToRead();
        }
        GElf_Sym symbol{};
        for (int i = 1; gelf_getsym(table, i, &symbol) != nullptr; ++i) { // The first one is no symbol.
            const char* const name = elf_strptr(elf_.get(), header.sh_link, symbol.st_name);
            if (IsExported(symbol) && name != nullptr) {
                exported.push_back({name, symbol.st_value, symbol.st_size});
            }
        }
    }
    return exported;
}

bool ElfFile::ReadLoaded(uint64_t address, void* target, size_t size) const {
    size_t count = 0;
    if (elf_getphdrnum(elf_.get(), &count) != 0) {
        FailToRead();
    }
    for (size_t i = 0; i != count; ++i) {
        GElf_Phdr segment{};
        if (gelf_getphdr(elf_.get(), static_cast<int>(i), &segment) == nullptr) {
            FailToRead();
        }
        const uint64_t begin = address - segment.p_vaddr; // Huge when the address lies before.
        const uint64_t offset = segment.p_offset + begin;
        if (segment.p_type == PT_LOAD && begin <= segment.p_filesz && segment.p_filesz - begin >= size &&
            offset >= begin && offset <= bytes_.size() && bytes_.size() - offset >= size) {
            std::memcpy(target, bytes_.data() + offset, size);
            return true;
        }
    }
    return false;
}

} // namespace quarn::calvane
