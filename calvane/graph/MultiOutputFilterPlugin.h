#pragma once

#include <string>

#include "calvane/Export.h"
#include "calvane/graph/PipelinePlugin.h"
#include "calvane/graph/SinkCollection.h"
#include "calvane/graph/SourceCollection.h"

namespace quarn::calvane {

/// Base of a plugin with one input, named "default", and several named outputs. A subclass declares each with
/// CreateSource, keeps what that returns to push through, and implements OnBuffer, which owns
/// every buffer that it is given.
///
/// Ownership: the sources are the subclass's to delete, see SourceCollection.
/// Errors:    connecting without a name throws "NAME: Unnamed sources are not supported by this plugin";
///            connecting a name that was not declared throws "No source named NAME exists in collection".
class CALVANE_API MultiOutputFilterPlugin : public PipelinePlugin,
                                            public PipelinePlugin::IConnectToSinkHandler,
                                            public Sink::IBufferHandler {
public:
    explicit MultiOutputFilterPlugin(const IPluginConfiguration& config);
    ~MultiOutputFilterPlugin() override;

    void OnConnectToSink(Sink* sink) override;
    void OnConnectToSink(const std::string& sourceName, Sink* sink) override;
    bool OnDisconnectSink(const Sink* sink) override;

    /// Throws Exception "A source named NAME already exists".
    Source* CreateSource(const std::string& name);

private:
    SourceCollection sources_;
    SinkCollection sinks_;
};

} // namespace quarn::calvane
