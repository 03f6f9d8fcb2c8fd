#pragma once

#include <string>
#include <vector>

#include "calvane/Export.h"

namespace quarn::calvane {

/// What a plugin is made from: its type, its name and its settings.
///
/// Threads: one at a time. A plugin reads its settings while it is constructed; the configuration may be gone
///          afterwards.
class CALVANE_API IPluginConfiguration {
public:
    /// The shared object that provides the type; empty for a built-in type.
    virtual std::string GetPluginModule() const = 0;
    virtual std::string GetPluginType() const = 0;
    /// The name of the instance.
    virtual std::string GetPluginName() const = 0;
    virtual std::string GetStringOrDefault(const char* key, const char* defaultValue) const = 0;
    virtual int GetIntOrDefault(const char* key, int defaultValue) const = 0;
    /// Appends the names of the plugin's own settings.
    virtual void GetKeys(std::vector<std::string>& keys) const = 0;
    virtual ~IPluginConfiguration() = default;
};

} // namespace quarn::calvane
