#pragma once

#include <string>
#include <vector>

#include "calvane/Export.h"
#include "calvane/config/IPluginConfiguration.h"

namespace quarn::calvane {

/// The configuration of a plugin that is made in code: a type and a name, and every setting at its default.
class CALVANE_API DefaultPluginConfiguration : public IPluginConfiguration {
public:
    /// A built-in type; the instance is named like it.
    explicit DefaultPluginConfiguration(const std::string& name);
    DefaultPluginConfiguration(const std::string& module, const std::string& type, const std::string& name);
    DefaultPluginConfiguration(const DefaultPluginConfiguration& other);
    ~DefaultPluginConfiguration() override;

    std::string GetPluginModule() const override;
    std::string GetPluginType() const override;
    std::string GetPluginName() const override;
    std::string GetStringOrDefault(const char* key, const char* defaultValue) const override;
    int GetIntOrDefault(const char* key, int defaultValue) const override;
    void GetKeys(std::vector<std::string>& keys) const override;

private:
    const std::string module_;
    const std::string type_;
    const std::string name_;
};

} // namespace quarn::calvane
