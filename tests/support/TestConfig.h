#pragma once

#include <map>
#include <string>
#include <vector>

#include "calvane/config/IPluginConfiguration.h"

/// A plugin's configuration that a test writes down in place.
class TestConfig : public quarn::calvane::IPluginConfiguration {
public:
    explicit TestConfig(std::string name, std::map<std::string, std::string> settings = {},
                        std::string type = "Test", std::string module = {})
        : name_(std::move(name)),
          type_(std::move(type)),
          module_(std::move(module)),
          settings_(std::move(settings)) {}

    std::string GetPluginModule() const override { return module_; }
    std::string GetPluginType() const override { return type_; }
    std::string GetPluginName() const override { return name_; }
    std::string GetStringOrDefault(const char* key, const char* defaultValue) const override {
        const auto found = settings_.find(key);
        return found != settings_.end() ? found->second : defaultValue;
    }
    int GetIntOrDefault(const char* key, int defaultValue) const override {
        const auto found = settings_.find(key);
        return found != settings_.end() ? std::stoi(found->second) : defaultValue;
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
    const std::map<std::string, std::string> settings_;
};
