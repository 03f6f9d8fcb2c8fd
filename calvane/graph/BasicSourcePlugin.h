#pragma once

#include <memory>
#include <string>

#include "calvane/Export.h"
#include "calvane/graph/PipelinePlugin.h"
#include "calvane/graph/Source.h"

namespace quarn::calvane {

/// Base of a plugin that produces buffers and has one output. A subclass implements OnGenerateBuffer and
/// pushes through `source`.
///
/// Errors: connecting a named output throws "NAME: Named sources are not supported by this plugin".
class CALVANE_API BasicSourcePlugin : public PipelinePlugin,
                                      public PipelinePlugin::IConnectToSinkHandler,
                                      public PipelinePlugin::IGenerateBufferHandler {
public:
    explicit BasicSourcePlugin(const IPluginConfiguration& config);
    ~BasicSourcePlugin() override;

    void OnConnectToSink(Sink* sink) override;
    void OnConnectToSink(const std::string& sourceName, Sink* sink) override;
    bool OnDisconnectSink(const Sink* sink) override;

protected:
    const std::unique_ptr<Source> source;
};

} // namespace quarn::calvane
