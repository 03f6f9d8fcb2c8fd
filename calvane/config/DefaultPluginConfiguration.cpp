#include "calvane/config/DefaultPluginConfiguration.h"

namespace quarn::calvane {

DefaultPluginConfiguration::DefaultPluginConfiguration(const std::string& name) : type_(name), name_(name) {}

DefaultPluginConfiguration::DefaultPluginConfiguration(const std::string& module, const std::string& type,
                                                       const std::string& name)
    : module_(module), type_(type), name_(name) {}

DefaultPluginConfiguration::DefaultPluginConfiguration(const DefaultPluginConfiguration& other) = default;
DefaultPluginConfiguration::~DefaultPluginConfiguration() = default;

std::string DefaultPluginConfiguration::GetPluginModule() const {
    return module_;
}

std::string DefaultPluginConfiguration::GetPluginType() const {
    return type_;
}

std::string DefaultPluginConfiguration::GetPluginName() const {
    return name_;
}

std::string DefaultPluginConfiguration::GetStringOrDefault(const char*, const char* defaultValue) const {
    return defaultValue;
}

int DefaultPluginConfiguration::GetIntOrDefault(const char*, int defaultValue) const {
    return defaultValue;
}

void DefaultPluginConfiguration::GetKeys(std::vector<std::string>&) const {}

} // namespace quarn::calvane
