#include "calvane/config/PluginTypes.h"

#include <algorithm>

#include "calvane/Version.h"
#include "calvane/config/ModuleSearch.h"
#include "calvane/config/NearestName.h"
#include "calvane/config/PluginManager.h"
#include "calvane/config/internal/ModuleVersion.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

struct PluginTypes::Entry {
    PluginTypeOrigin origin;
    std::map<std::string, std::string> texts; // Of declarations, by type.
    std::map<std::string, PluginDeclaration> declarations;
};

PluginTypes::PluginTypes() = default;
PluginTypes::~PluginTypes() = default;

const PluginTypeOrigin& PluginTypes::GetOrigin(const std::string& module) {
    return Load(module).origin;
}

void PluginTypes::RequireVersion(const std::string& module) {
    const ModuleFile::Version& version = GetOrigin(module).version;
    AssertModuleVersionCompatible(module, version.major, version.minor, version.patch);
}

void PluginTypes::RequireType(const std::string& module, const std::string& type) {
    RequireVersion(module);
    const std::vector<std::string>& types = GetOrigin(module).types;
    if (std::find(types.begin(), types.end(), type) != types.end()) {
        return;
    }
    if (module.empty()) {
        throw osa::Exception("No registered plugin with type " + type + SuggestName(type, types));
    }
    throw osa::Exception("Module " + module + " exports no plugin with type " + type +
                         SuggestName(type, types) +
                         (types.empty() ? "; CALVANE_EXPORT_PLUGIN exports one" : ""));
}

const PluginDeclaration* PluginTypes::FindDeclaration(const std::string& module, const std::string& type) {
    RequireType(module, type);
    Entry& entry = Load(module);
    const auto known = entry.declarations.find(type);
    if (known != entry.declarations.end()) {
        return &known->second;
    }
    const auto text = entry.texts.find(type);
    if (text == entry.texts.end()) {
        return nullptr;
    }
    return &entry.declarations.emplace(type, PluginDeclaration::Parse(type, text->second)).first->second;
}

PluginTypes::Entry& PluginTypes::Load(const std::string& module) {
    const auto known = entries_.find(module);
    if (known != entries_.end()) {
        return known->second;
    }
    Entry entry{{module, "", {kVersionMajor, kVersionMinor, kVersionPatch}, {}}, {}, {}};
    if (module.empty()) {
        entry.origin.types = PluginManager::GetBuiltinTypes();
        entry.texts = PluginManager::GetBuiltinDeclarations();
    } else {
        const ModuleFile file(FindModule(module), module);
        entry.origin.file = file.GetPath();
        entry.origin.version = file.GetVersion();
        entry.origin.types = file.GetTypes();
        entry.texts = file.GetDeclarations();
    }
    return entries_.emplace(module, std::move(entry)).first->second;
}

} // namespace quarn::calvane
