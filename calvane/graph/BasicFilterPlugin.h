#pragma once

#include <memory>
#include <string>

#include "calvane/Export.h"
#include "calvane/graph/PipelinePlugin.h"
#include "calvane/graph/SinkCollection.h"
#include "calvane/graph/Source.h"

namespace quarn::calvane {

/// Base of a plugin with one input, named "default", and one output. A subclass implements OnBuffer, owns
/// every buffer that it is given, and pushes through `source`.
///
/// Errors: connecting a named output throws "NAME: Named sources are not supported by this plugin".
class CALVANE_API BasicFilterPlugin : public PipelinePlugin,
                                      public PipelinePlugin::IConnectToSinkHandler,
                                      public Sink::IBufferHandler {
public:
    explicit BasicFilterPlugin(const IPluginConfiguration& config);
    ~BasicFilterPlugin() override;

    void OnConnectToSink(Sink* sink) override;
    void OnConnectToSink(const std::string& sourceName, Sink* sink) override;
    bool OnDisconnectSink(const Sink* sink) override;

private:
    SinkCollection sinks_; // Goes after the source, as the order of declaration says.

protected:
    /// Shared, so that a thread that outlives its plugin keeps what it pushes through.
    const std::shared_ptr<Source> source;
};

} // namespace quarn::calvane
