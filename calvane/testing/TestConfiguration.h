#pragma once

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "calvane/config/IPluginConfiguration.h"

namespace quarn::calvane::testkit {

/// A plugin's own settings: key and value, as a description has them.
using Settings = std::map<std::string, std::string>;

/// A plugin's configuration that a test writes down in place. Integers are read as those of a description
/// are: what follows the digits is ignored, a text without digits is 0, what does not fit is clamped.
///
/// Threads: one at a time.
class TestConfiguration : public IPluginConfiguration {
public:
    /// `module` is empty for a type that is not from a module.
    explicit TestConfiguration(std::string name, Settings settings = {}, std::string type = "Test",
                               std::string module = {})
        : name_(std::move(name)),
          type_(std::move(type)),
          module_(std::move(module)),
          settings_(std::move(settings)) {}

    std::string GetPluginModule() const override { return module_; }
    std::string GetPluginType() const override { return type_; }
    std::string GetPluginName() const override { return name_; }
    std::string GetStringOrDefault(const char* key, const char* defaultValue) const override {
        const auto found = settings_.find(key);
        if (found == settings_.end()) {
            return defaultValue;
        }
        read_.insert(key);
        return found->second;
    }
    int GetIntOrDefault(const char* key, int defaultValue) const override {
        if (settings_.count(key) == 0) {
            return defaultValue;
        }
        const long long number = std::strtoll(GetStringOrDefault(key, "").c_str(), nullptr, 10);
        using Limits = std::numeric_limits<int>;
        return static_cast<int>(std::clamp<long long>(number, Limits::min(), Limits::max()));
    }
    void GetKeys(std::vector<std::string>& keys) const override {
        for (const auto& entry : settings_) {
            keys.push_back(entry.first);
        }
    }

    /// The keys that no look-up has read, in ascending order: `calvane run` warns about such.
    std::vector<std::string> GetUnreadKeys() const {
        std::vector<std::string> keys;
        GetKeys(keys);
        const auto wasRead = [this](const std::string& key) { return read_.count(key) != 0; };
        keys.erase(std::remove_if(keys.begin(), keys.end(), wasRead), keys.end());
        return keys;
    }

private:
    const std::string name_;
    const std::string type_;
    const std::string module_;
    const Settings settings_;
    mutable std::set<std::string> read_;
};

} // namespace quarn::calvane::testkit
