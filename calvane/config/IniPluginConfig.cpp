#include "calvane/config/IniPluginConfig.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <set>

#include "calvane/config/DescriptionKeys.h"
#include "calvane/graph/SettingException.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/Logger.h"
#include "quarn/core/StringUtil.h"

namespace quarn::calvane {

namespace {

int ToInt(const std::string& text) {
    const long number = std::strtol(text.c_str(), nullptr, 10);
    return static_cast<int>(
        std::clamp<long>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

} // namespace

class IniPluginConfig::IniPluginConfigImpl {
public:
    IniPluginConfigImpl(const core::IniFile* iniFile, const std::string& groupName)
        : logger(core::Logger::GetLogger("IniPluginConfig")), ini(iniFile), name(groupName) {
        if (!ini->HasGroup(name)) {
            throw SettingException(name, "", "Missing configuration group for plugin " + name);
        }
        module = ini->GetValueOrDefault(name, keys::kPluginModule);
        if (!ini->HasValue(name, keys::kPluginType)) {
            throw SettingException(
                name, keys::kPluginType,
                std::string("Missing ") + keys::kPluginType + " setting for plugin " + name);
        }
        type = ini->GetValue(name, keys::kPluginType);
    }

    /// The value, which counts as used from now on, or null.
    const std::string* Use(const char* key) {
        if (!ini->HasValue(name, key)) {
            return nullptr;
        }
        usedKeys.insert(key);
        return &ini->GetValue(name, key);
    }

    core::Logger* const logger;
    const core::IniFile* const ini;
    const std::string name;
    std::string module;
    std::string type;
    std::set<std::string> usedKeys;
};

IniPluginConfig::IniPluginConfig(const core::IniFile* ini, const std::string& groupName)
    : impl_(std::make_unique<IniPluginConfigImpl>(ini, groupName)) {}

IniPluginConfig::~IniPluginConfig() = default;

std::string IniPluginConfig::GetPluginModule() const {
    return impl_->module;
}

std::string IniPluginConfig::GetPluginType() const {
    return impl_->type;
}

std::string IniPluginConfig::GetPluginName() const {
    return impl_->name;
}

std::string IniPluginConfig::GetStringOrDefault(const char* key, const char* defaultValue) const {
    if (const std::string* value = impl_->Use(key)) {
        return *value;
    }
    impl_->logger->Information("%s: Using default value (\"%s\") for setting %s", impl_->name.c_str(),
                               defaultValue, key);
    return defaultValue;
}

int IniPluginConfig::GetIntOrDefault(const char* key, int defaultValue) const {
    if (const std::string* value = impl_->Use(key)) {
        return ToInt(*value);
    }
    impl_->logger->Information("%s: Using default value (%d) for setting %s", impl_->name.c_str(),
                               defaultValue, key);
    return defaultValue;
}

void IniPluginConfig::GetKeys(std::vector<std::string>& names) const {
    const core::IniFile::Group& group = (*impl_->ini)[impl_->name];
    names.reserve(names.size() + group.size());
    for (const auto& entry : group) {
        if (!core::StringUtil::StartsWith(entry.first, keys::kFrameworkPrefix)) {
            names.push_back(entry.first);
        }
    }
}

std::vector<std::string> IniPluginConfig::GetUnusedKeys() const {
    std::vector<std::string> unused;
    GetKeys(unused);
    const auto isUsed = [this](const std::string& key) { return impl_->usedKeys.count(key) != 0; };
    unused.erase(std::remove_if(unused.begin(), unused.end(), isUsed), unused.end());
    return unused;
}

void IniPluginConfig::LogUnusedSettings() const {
    for (const std::string& key : GetUnusedKeys()) {
        impl_->logger->Warning("%s: Setting %s was never used.", impl_->name.c_str(), key.c_str());
    }
}

} // namespace quarn::calvane
