#pragma once

#include <string>

#include "calvane/Export.h"
#include "calvane/graph/PipelinePlugin.h"
#include "calvane/graph/SourceCollection.h"

namespace quarn::calvane {

/// Base of a plugin that produces buffers and has several named outputs. A subclass declares each with
/// CreateSource, keeps what that returns to push through, and implements OnGenerateBuffer.
///
/// Ownership: the sources are the subclass's to delete, see SourceCollection.
/// Errors:    connecting without a name throws "NAME: Unnamed sources are not supported by this plugin";
///            connecting a name that was not declared throws "No source named NAME exists in collection".
class CALVANE_API MultiOutputSourcePlugin : public PipelinePlugin,
                                            public PipelinePlugin::IConnectToSinkHandler,
                                            public PipelinePlugin::IGenerateBufferHandler {
public:
    explicit MultiOutputSourcePlugin(const IPluginConfiguration& config);
    ~MultiOutputSourcePlugin() override;

    void OnConnectToSink(Sink* sink) override;
    void OnConnectToSink(const std::string& sourceName, Sink* sink) override;
    bool OnDisconnectSink(const Sink* sink) override;

    /// Throws Exception "A source named NAME already exists".
    Source* CreateSource(const std::string& name);

private:
    SourceCollection sources_;
};

} // namespace quarn::calvane
