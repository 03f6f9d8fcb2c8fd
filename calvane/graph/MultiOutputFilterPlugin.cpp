#include "calvane/graph/MultiOutputFilterPlugin.h"

#include "calvane/graph/internal/Outputs.h"

namespace quarn::calvane {

MultiOutputFilterPlugin::MultiOutputFilterPlugin(const IPluginConfiguration& config)
    : PipelinePlugin(config), sinks_(new Sink(this)) {
    SetConnectToSinkHandler(this);
    SetGetSinkHandler(&sinks_);
}

MultiOutputFilterPlugin::~MultiOutputFilterPlugin() = default;

void MultiOutputFilterPlugin::OnConnectToSink(Sink*) {
    RefuseUnnamedOutput(*this);
}

void MultiOutputFilterPlugin::OnConnectToSink(const std::string& sourceName, Sink* sink) {
    ConnectNamedOutput(*this, sources_, sourceName, sink);
}

bool MultiOutputFilterPlugin::OnDisconnectSink(const Sink* sink) {
    return sources_.DisconnectSink(sink);
}

Source* MultiOutputFilterPlugin::CreateSource(const std::string& name) {
    Source* const source = sources_.CreateSource(name);
    DeclareOutput(name);
    return source;
}

} // namespace quarn::calvane
