#include "calvane/graph/BasicSinkPlugin.h"

namespace quarn::calvane {

BasicSinkPlugin::BasicSinkPlugin(const IPluginConfiguration& config)
    : PipelinePlugin(config), sinks_(new Sink(this)) {
    SetGetSinkHandler(&sinks_);
}

BasicSinkPlugin::~BasicSinkPlugin() = default;

} // namespace quarn::calvane
