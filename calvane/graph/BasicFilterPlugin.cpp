#include "calvane/graph/BasicFilterPlugin.h"

#include "calvane/graph/internal/Outputs.h"

namespace quarn::calvane {

BasicFilterPlugin::BasicFilterPlugin(const IPluginConfiguration& config)
    : PipelinePlugin(config), sinks_(new Sink(this)), source(std::make_shared<Source>()) {
    SetConnectToSinkHandler(this);
    DeclareOutput("");
    SetGetSinkHandler(&sinks_);
}

BasicFilterPlugin::~BasicFilterPlugin() = default;

void BasicFilterPlugin::OnConnectToSink(Sink* sink) {
    ConnectOnlyOutput(*this, *source, sink);
}

void BasicFilterPlugin::OnConnectToSink(const std::string&, Sink*) {
    RefuseNamedOutput(*this);
}

bool BasicFilterPlugin::OnDisconnectSink(const Sink* sink) {
    return source->Disconnect(sink);
}

} // namespace quarn::calvane
