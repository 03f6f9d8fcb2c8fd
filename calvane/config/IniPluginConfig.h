#pragma once

#include <memory>
#include <string>
#include <vector>

#include "calvane/Export.h"
#include "calvane/config/IPluginConfiguration.h"

namespace quarn::core {
class IniFile;
}

namespace quarn::calvane {

/// The configuration of a plugin that is described by one group of an INI file; the group's name is the
/// plugin's.
///
/// Integers are read as strtol does: what follows the digits is ignored, a text without digits is 0,
/// and what does not fit is clamped. A setting that is absent takes its default, with a line in the log.
///
/// Ownership: the INI file stays the caller's and must outlive this object.
/// Errors:    the constructor throws SettingException "Missing configuration group for plugin NAME" or
///            "Missing t.plugin.type setting for plugin NAME". An absent setting is never an error.
class CALVANE_API IniPluginConfig : public IPluginConfiguration {
public:
    IniPluginConfig(const core::IniFile* ini, const std::string& groupName);
    ~IniPluginConfig() override;

    std::string GetPluginModule() const override;
    std::string GetPluginType() const override;
    std::string GetPluginName() const override;
    std::string GetStringOrDefault(const char* key, const char* defaultValue) const override;
    int GetIntOrDefault(const char* key, int defaultValue) const override;
    /// In ascending order, without the framework's own ("t." and what follows).
    void GetKeys(std::vector<std::string>& keys) const override;

    /// The settings of the plugin that nothing has read yet, in ascending order.
    std::vector<std::string> GetUnusedKeys() const;
    /// Warns about each of them.
    void LogUnusedSettings() const;

private:
    class IniPluginConfigImpl;
    const std::unique_ptr<IniPluginConfigImpl> impl_;
};

} // namespace quarn::calvane
