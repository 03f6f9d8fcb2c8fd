#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "calvane/config/IPluginConfiguration.h"

namespace quarn::calvane::testkit {

/// A setting that a plugin asked for.
struct AskedSetting {
    std::string key;
    bool isInteger;
    std::string defaultValue; ///< As it would be written.
    bool isRequired;          ///< The plugin refuses its own default.
};

/// The configuration of a plugin without settings. Records which settings the plugin asks for.
///
/// Threads: one at a time, as any configuration.
class SettingsRecorder : public IPluginConfiguration {
public:
    /// The plugin is named like its type.
    SettingsRecorder(std::string module, std::string type)
        : module_(std::move(module)), type_(std::move(type)) {}

    std::string GetPluginModule() const override { return module_; }
    std::string GetPluginType() const override { return type_; }
    std::string GetPluginName() const override { return type_; }
    std::string GetStringOrDefault(const char* key, const char* defaultValue) const override {
        const AskedSetting& setting = Find({key, false, defaultValue, false});
        return setting.isRequired ? answer_ : defaultValue;
    }
    int GetIntOrDefault(const char* key, int defaultValue) const override {
        Find({key, true, std::to_string(defaultValue), false});
        return defaultValue;
    }
    void GetKeys(std::vector<std::string>&) const override { keysAsked_ = true; }

    /// In the order in which they were asked for, each once.
    const std::vector<AskedSetting>& GetSettings() const { return settings_; }
    /// Whether the plugin wanted to see all keys: it reads some whose names it does not know beforehand.
    bool WereKeysAsked() const { return keysAsked_; }
    void MarkRequired(const std::string& key) {
        for (AskedSetting& setting : settings_) {
            setting.isRequired = setting.isRequired || setting.key == key;
        }
    }
    /// From now on the required texts are this.
    void AnswerRequired(const std::string& text) { answer_ = text; }

private:
    // The setting of that key, entered if it is new.
    const AskedSetting& Find(const AskedSetting& asked) const {
        const auto found = std::find_if(settings_.begin(), settings_.end(),
                                        [&asked](const auto& known) { return known.key == asked.key; });
        return found != settings_.end() ? *found : settings_.emplace_back(asked);
    }

    const std::string module_;
    const std::string type_;
    mutable std::vector<AskedSetting> settings_;
    mutable bool keysAsked_ = false;
    std::string answer_;
};

} // namespace quarn::calvane::testkit
