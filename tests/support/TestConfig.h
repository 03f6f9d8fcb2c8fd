#pragma once

#include <map>
#include <string>
#include <vector>

#include "calvane/config/IPluginConfiguration.h"

using Settings = std::map<std::string, std::string>;

/// A plugin's configuration that a test writes down in place.
class TestConfig : public quarn::calvane::IPluginConfiguration {
public:
    explicit TestConfig(const std::string& name, const Settings& settings = {},
                        const std::string& type = "Test", const std::string& module = {})
        : name_(name), type_(type), module_(module), settings_(settings) {}

    std::string GetPluginModule() const override { return module_; }
    std::string GetPluginType() const override { return type_; }
    std::string GetPluginName() const override { return name_; }
    std::string GetStringOrDefault(const char* key, const char* defaultValue) const override {
        const auto found = settings_.find(key);
        return found != settings_.end() ? found->second : defaultValue;
    }
    int GetIntOrDefault(const char* key, int defaultValue) const override {
        return std::stoi(GetStringOrDefault(key, std::to_string(defaultValue).c_str()));
    }
    void GetKeys(std::vector<std::string>& keys) const override {
        for (const auto& entry : settings_) {
            keys.push_back(entry.first);
        }
    }

private:
    const std::string name_;
    const std::string type_;
    const std::string module_;
    const Settings settings_;
};
