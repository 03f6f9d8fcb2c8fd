#pragma once

#include "calvane/Export.h"

namespace quarn::calvane {

class IPluginConfiguration;
class PipelinePlugin;

/// Makes plugins from their configuration.
class CALVANE_API IPluginFactory {
public:
    /// A plugin of the configured type and name; the caller owns one reference. A name that the factory has
    /// already given out gives the same instance again.
    virtual PipelinePlugin* CreatePlugin(const IPluginConfiguration& config) = 0;
    virtual ~IPluginFactory() = default;
};

} // namespace quarn::calvane
