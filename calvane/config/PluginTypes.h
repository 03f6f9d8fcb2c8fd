#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "calvane/Export.h"
#include "calvane/config/ModuleFile.h"
#include "calvane/config/PluginDeclaration.h"

namespace quarn::calvane {

/// Where plugin types come from: the library itself, or the file of a module.
struct PluginTypeOrigin {
    std::string module; ///< As it was named; empty for the library.
    std::string file;   ///< The module's file; empty for the library.
    ModuleFile::Version version;
    std::vector<std::string> types; ///< In ascending order.
};

/// What plugin types there are and what they declare, without making a plugin or loading a module. Each file
/// is read once.
///
/// Threads: one at a time.
class CALVANE_API PluginTypes {
public:
    PluginTypes();
    ~PluginTypes();
    PluginTypes(const PluginTypes&) = delete;
    PluginTypes& operator=(const PluginTypes&) = delete;

    /// `module` as "t.plugin.module" names it; empty for the library. Throws what FindModule and ModuleFile
    /// throw.
    const PluginTypeOrigin& GetOrigin(const std::string& module);
    /// Throws the same, and Exception for a module that was built against a version that does not fit.
    void RequireVersion(const std::string& module);
    /// Throws the same, and Exception with a suggestion when there is no such type: "No registered plugin with
    /// type ..." or "Module ... exports no plugin with type ...".
    void RequireType(const std::string& module, const std::string& type);
    /// What the type declares, or null when it declares nothing. Throws the same as RequireType, and what
    /// PluginDeclaration::Parse throws.
    const PluginDeclaration* FindDeclaration(const std::string& module, const std::string& type);

private:
    struct Entry;

    Entry& Load(const std::string& module);

    std::map<std::string, Entry> entries_; // By module.
};

} // namespace quarn::calvane
