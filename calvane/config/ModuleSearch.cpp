#include "calvane/config/ModuleSearch.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "quarn/core/StringUtil.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/FormatText.h"

namespace quarn::calvane {

namespace {

using std::filesystem::path;

// Beside the library that holds this very code.
std::string PluginsFolder() {
    Dl_info library{};
    if (dladdr(reinterpret_cast<const void*>(&PluginsFolder), &library) == 0 ||
        library.dli_fname == nullptr) {
        return {};
    }
    std::error_code ignored;
    const path real = std::filesystem::canonical(library.dli_fname, ignored);
    return real.empty() ? std::string() : (real.parent_path() / "calvane/plugins").string();
}

std::vector<std::string> Folders() {
    std::vector<std::string> folders;
    // A program with more rights than its caller does not let the caller choose its code.
    if (const char* const listed = secure_getenv(kPluginPathVariable)) {
        folders = core::StringUtil::Split(listed, ':');
    }
    folders.push_back(PluginsFolder());
    return folders;
}

[[noreturn]] void Refuse(const std::string& module, const std::string& file, const std::string& why) {
    throw osa::Exception("Module \"" + module + "\" is refused: " + file + " " + why);
}

void AssertNobodyElseCanChange(const std::string& module, const std::string& file) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) {
        Refuse(module, file, "cannot be looked at: " + osa::ErrnoText(errno));
    }
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        Refuse(module, file,
               osa::FormatText("belongs to user %lu, who is neither root nor the user of this process",
                               static_cast<unsigned long>(status.st_uid)));
    }
    const bool isSticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    if (!isSticky && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        Refuse(module, file,
               osa::FormatText("may be written by others than its owner (mode %04o)",
                               static_cast<unsigned int>(status.st_mode & 07777U)));
    }
}

// A link is only as safe as the folder that it lies in, and its target as the folder that holds the target.
void AssertTrustworthy(const std::string& module, const std::string& file) {
    std::error_code failure;
    const path real = std::filesystem::canonical(file, failure);
    if (failure) {
        Refuse(module, file, "cannot be resolved: " + failure.message());
    }
    if (!std::filesystem::is_regular_file(real, failure)) {
        Refuse(module, file, "is not a regular file");
    }
    const path folder = path(file).parent_path();
    AssertNobodyElseCanChange(module, folder.empty() ? "." : folder.string());
    AssertNobodyElseCanChange(module, real.parent_path().string());
    AssertNobodyElseCanChange(module, real.string());
}

// 0, or the errno that tells why there is no such file.
int LookFor(const std::string& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? 0 : errno;
}

[[noreturn]] void FailToFind(const std::string& module, const std::string& where) {
    throw osa::Exception("Module \"" + module + "\" cannot be found" + where);
}

std::string FindInFolders(const std::string& module) {
    std::string searched;
    for (const std::string& folder : Folders()) {
        if (folder.empty()) {
            continue;
        }
        std::string candidate = (path(folder) / module).string();
        const int reason = LookFor(candidate);
        if (reason == 0) {
            return candidate;
        }
        searched += (searched.empty() ? " in " : ", ") + folder;
        if (reason != ENOENT) {
            searched += " (" + osa::ErrnoText(reason) + ")";
        }
    }
    FailToFind(module, searched);
}

} // namespace

std::vector<std::string> FindModules() {
    std::vector<std::string> modules;
    std::set<std::string> names;
    for (const std::string& folder : Folders()) {
        std::error_code ignored;
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
            if (entry.path().extension() == ".so" && names.insert(entry.path().filename()).second) {
                found.insert(entry.path());
            }
        }
        modules.insert(modules.end(), found.begin(), found.end());
    }
    return modules;
}

std::string FindModule(const std::string& module) {
    if (module.empty()) {
        FailToFind(module, ": its name is empty");
    }
    std::string file = module;
    if (!path(module).is_absolute()) {
        file = FindInFolders(module);
    } else if (const int reason = LookFor(module); reason != 0) {
        FailToFind(module, ": " + osa::ErrnoText(reason));
    }
    AssertTrustworthy(module, file);
    return file;
}

} // namespace quarn::calvane
