#include "calvane/graph/MultiOutputSourcePlugin.h"

#include "calvane/graph/internal/Outputs.h"

namespace quarn::calvane {

MultiOutputSourcePlugin::MultiOutputSourcePlugin(const IPluginConfiguration& config)
    : PipelinePlugin(config) {
    SetConnectToSinkHandler(this);
    SetGenerateBufferHandler(this);
}

MultiOutputSourcePlugin::~MultiOutputSourcePlugin() = default;

void MultiOutputSourcePlugin::OnConnectToSink(Sink*) {
    RefuseUnnamedOutput(*this);
}

void MultiOutputSourcePlugin::OnConnectToSink(const std::string& sourceName, Sink* sink) {
    ConnectNamedOutput(*this, sources_, sourceName, sink);
}

bool MultiOutputSourcePlugin::OnDisconnectSink(const Sink* sink) {
    return sources_.DisconnectSink(sink);
}

Source* MultiOutputSourcePlugin::CreateSource(const std::string& name) {
    Source* const source = sources_.CreateSource(name);
    DeclareOutput(name);
    return source;
}

} // namespace quarn::calvane
