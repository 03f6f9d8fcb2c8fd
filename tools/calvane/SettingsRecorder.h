#pragma once

#include <string>
#include <vector>

#include "calvane/config/IPluginConfiguration.h"

namespace calvane_program {

/// A setting that a plugin asked for.
struct AskedSetting {
    std::string key;
    bool isInteger;
    std::string text; ///< The default, unless it is an integer.
    int number;       ///< The default, if it is an integer.
    bool isRequired;  ///< The plugin refuses its own default.
};

/// The configuration of a plugin without settings. Writes down which settings the plugin asks for.
///
/// Threads: one at a time, as any configuration.
class SettingsRecorder : public quarn::calvane::IPluginConfiguration {
public:
    /// The plugin is named like its type.
    SettingsRecorder(const std::string& module, const std::string& type);

    std::string GetPluginModule() const override { return module_; }
    std::string GetPluginType() const override { return type_; }
    std::string GetPluginName() const override { return type_; }
    std::string GetStringOrDefault(const char* key, const char* defaultValue) const override;
    int GetIntOrDefault(const char* key, int defaultValue) const override;
    void GetKeys(std::vector<std::string>& keys) const override;

    /// In the order in which they were asked for, each once.
    const std::vector<AskedSetting>& GetSettings() const { return settings_; }
    /// Whether the plugin wanted to see all keys: it reads some whose names it does not know beforehand.
    bool WereKeysAsked() const { return keysAsked_; }
    void MarkRequired(const std::string& key);
    /// From now on the texts among the required settings are this.
    void AnswerRequired(const std::string& text) { answer_ = text; }

private:
    const AskedSetting& Find(const AskedSetting& asked) const;

    const std::string module_;
    const std::string type_;
    mutable std::vector<AskedSetting> settings_;
    mutable bool keysAsked_ = false;
    std::string answer_;
};

} // namespace calvane_program
