#include "calvane/config/ModuleFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "calvane/config/internal/ElfFile.h"
#include "calvane/config/internal/ModuleNames.h"
#include "quarn/core/StringUtil.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/FormatText.h"

namespace quarn::calvane {

namespace {

constexpr uint64_t kMaxBytes = uint64_t{256} << 20U;
constexpr uint64_t kMaxDeclarationBytes = 65536;

[[noreturn]] void Fail(const std::string& name, const std::string& why) {
    throw osa::Exception("Cannot load module " + name + ": " + why);
}

class Descriptor {
public:
    // Opening a pipe must not wait for somebody to write.
    explicit Descriptor(const std::string& path)
        : number(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~Descriptor() {
        if (number >= 0) {
            close(number);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    const int number;
};

std::string ReadWholeFile(const std::string& path, const std::string& name) {
    const Descriptor file(path);
    struct stat status {};
    if (file.number < 0 || fstat(file.number, &status) != 0) {
        Fail(name, osa::ErrnoText(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        Fail(name, "it is not a regular file");
    }
    if (static_cast<uint64_t>(status.st_size) > kMaxBytes) {
        Fail(name, "it is larger than any module");
    }
    std::string bytes(static_cast<size_t>(status.st_size), '\0');
    size_t have = 0;
    while (have < bytes.size()) {
        const ssize_t count = read(file.number, bytes.data() + have, bytes.size() - have);
        if (count < 0 && errno != EINTR) {
            Fail(name, osa::ErrnoText(errno));
        }
        if (count == 0) { // Somebody has cut it meanwhile.
            break;
        }
        have += count > 0 ? static_cast<size_t>(count) : 0;
    }
    bytes.resize(have);
    return bytes;
}

const ElfFile::Symbol* FindDefinition(const std::vector<ElfFile::Symbol>& symbols) {
    const auto found = std::find_if(symbols.begin(), symbols.end(), [](const ElfFile::Symbol& symbol) {
        return symbol.name == kDefinitionSymbol;
    });
    return found != symbols.end() ? &*found : nullptr;
}

ModuleFile::Version ReadVersion(const ElfFile& file, const ElfFile::Symbol& definition) {
    std::array<uint16_t, 3> numbers{};
    if (!file.ReadLoaded(definition.address, numbers.data(), sizeof numbers)) {
        throw osa::Exception("it holds no value of " + definition.name);
    }
    return {numbers[0], numbers[1], numbers[2]};
}

/// What follows `prefix` in the name of each symbol that begins with it, and the symbol.
std::map<std::string, ElfFile::Symbol> PickByPrefix(const std::vector<ElfFile::Symbol>& symbols,
                                                    const std::string& prefix) {
    std::map<std::string, ElfFile::Symbol> picked;
    for (const ElfFile::Symbol& symbol : symbols) {
        if (symbol.name.size() > prefix.size() && core::StringUtil::StartsWith(symbol.name, prefix)) {
            picked.emplace(symbol.name.substr(prefix.size()), symbol);
        }
    }
    return picked;
}

std::string ReadText(const ElfFile& file, const ElfFile::Symbol& symbol) {
    if (symbol.size > kMaxDeclarationBytes) {
        throw osa::Exception(symbol.name + " is larger than any declaration");
    }
    std::string text(static_cast<size_t>(symbol.size), '\0');
    if (!file.ReadLoaded(symbol.address, text.data(), text.size())) {
        throw osa::Exception("it holds no value of " + symbol.name);
    }
    return text.substr(0, text.find('\0'));
}

} // namespace

ModuleFile::ModuleFile(const std::string& path, const std::string& name) {
    const std::string& shown = name.empty() ? path : name;
    Read(ReadWholeFile(path, shown), shown);
    path_ = path;
}

void ModuleFile::Read(const std::string& bytes, const std::string& name) {
    path_ = name;
    try {
        const ElfFile file(bytes);
        const std::vector<ElfFile::Symbol> symbols = file.ReadExportedSymbols();
        if (const ElfFile::Symbol* const definition = FindDefinition(symbols)) {
            version_ = ReadVersion(file, *definition);
            for (const auto& entry : PickByPrefix(symbols, kEntryPointPrefix)) {
                types_.push_back(entry.first);
            }
            for (const auto& [type, symbol] : PickByPrefix(symbols, kDeclarationPrefix)) {
                declarations_.emplace(type, ReadText(file, symbol));
            }
            return;
        }
    } catch (const osa::Exception& error) {
        Fail(name, error.what());
    }
    throw osa::Exception(std::string("Cannot find symbol ") + kDefinitionSymbol + " in module " + name +
                         "; CALVANE_DEFINE_MODULE() defines it");
}

ModuleFile ModuleFile::FromBytes(const std::string& bytes, const std::string& name) {
    ModuleFile file;
    file.Read(bytes, name);
    return file;
}

} // namespace quarn::calvane
