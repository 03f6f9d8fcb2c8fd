#include "calvane/graph/BasicSourcePlugin.h"

#include "calvane/graph/internal/Outputs.h"

namespace quarn::calvane {

BasicSourcePlugin::BasicSourcePlugin(const IPluginConfiguration& config)
    : PipelinePlugin(config), source(std::make_unique<Source>()) {
    SetConnectToSinkHandler(this);
    DeclareOutput("");
    SetGenerateBufferHandler(this);
}

BasicSourcePlugin::~BasicSourcePlugin() = default;

void BasicSourcePlugin::OnConnectToSink(Sink* sink) {
    ConnectOnlyOutput(*this, *source, sink);
}

void BasicSourcePlugin::OnConnectToSink(const std::string&, Sink*) {
    RefuseNamedOutput(*this);
}

bool BasicSourcePlugin::OnDisconnectSink(const Sink* sink) {
    return source->Disconnect(sink);
}

} // namespace quarn::calvane
