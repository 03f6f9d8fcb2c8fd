#pragma once

#include <map>
#include <string>
#include <vector>

#include "calvane/Export.h"

namespace quarn::calvane {

/// The version, types and declarations in the file of a module. The file is read and not loaded: none of its
/// code runs.
///
/// They are found through the table of dynamic symbols, so a stripped module can be read like any other.
/// Whether the libraries that it needs are installed and have the symbols that it needs shows only when it is
/// loaded.
///
/// Threads: any; nothing changes after construction.
/// Errors:  construction throws Exception: "Cannot load module NAME: " and the reason for what cannot be read
///          or is no shared object for this processor; "Cannot find symbol gCalvaneModuleDefinition in module
///          NAME" and the macro that defines it for a shared object that is no module.
class CALVANE_API ModuleFile {
public:
    /// The version of the framework that the module was built against.
    struct Version {
        unsigned short major;
        unsigned short minor;
        unsigned short patch;
    };

    /// Reads the file at `path`; see FindModule for where modules lie. Refuses more than 256 MiB. Error texts
    /// name the module as `name`, or by its path when there is none.
    explicit ModuleFile(const std::string& path, const std::string& name = {});
    /// Reads the bytes of a file; `name` takes the place of its path in error texts.
    static ModuleFile FromBytes(const std::string& bytes, const std::string& name);

    const std::string& GetPath() const { return path_; }
    const Version& GetVersion() const { return version_; }
    /// The plugin types that the module exports, in ascending order.
    const std::vector<std::string>& GetTypes() const { return types_; }
    /// The texts of the declarations that the module exports, by type; see PluginDeclaration.
    const std::map<std::string, std::string>& GetDeclarations() const { return declarations_; }

private:
    ModuleFile() = default;
    void Read(const std::string& bytes, const std::string& name);

    std::string path_;
    Version version_{};
    std::vector<std::string> types_;
    std::map<std::string, std::string> declarations_;
};

} // namespace quarn::calvane
