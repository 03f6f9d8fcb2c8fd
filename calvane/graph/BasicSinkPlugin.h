#pragma once

#include "calvane/Export.h"
#include "calvane/graph/PipelinePlugin.h"
#include "calvane/graph/SinkCollection.h"

namespace quarn::calvane {

/// Base of a plugin that ends a pipeline: one input, named "default". A subclass implements OnBuffer and owns
/// every buffer that it is given.
class CALVANE_API BasicSinkPlugin : public PipelinePlugin, public Sink::IBufferHandler {
public:
    explicit BasicSinkPlugin(const IPluginConfiguration& config);
    ~BasicSinkPlugin() override;

private:
    SinkCollection sinks_;
};

} // namespace quarn::calvane
