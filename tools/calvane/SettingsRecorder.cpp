#include "calvane/SettingsRecorder.h"

#include <algorithm>

namespace calvane_program {

SettingsRecorder::SettingsRecorder(const std::string& module, const std::string& type)
    : module_(module), type_(type) {}

std::string SettingsRecorder::GetStringOrDefault(const char* key, const char* defaultValue) const {
    const AskedSetting& setting = Find({key, false, defaultValue, 0, false});
    return setting.isRequired ? answer_ : defaultValue;
}

int SettingsRecorder::GetIntOrDefault(const char* key, int defaultValue) const {
    Find({key, true, "", defaultValue, false});
    return defaultValue;
}

void SettingsRecorder::GetKeys(std::vector<std::string>&) const {
    keysAsked_ = true;
}

void SettingsRecorder::MarkRequired(const std::string& key) {
    for (AskedSetting& setting : settings_) {
        setting.isRequired = setting.isRequired || setting.key == key;
    }
}

// The setting of that key, entered if it is new.
const AskedSetting& SettingsRecorder::Find(const AskedSetting& asked) const {
    const auto found = std::find_if(settings_.begin(), settings_.end(),
                                    [&asked](const auto& known) { return known.key == asked.key; });
    return found != settings_.end() ? *found : settings_.emplace_back(asked);
}

} // namespace calvane_program
