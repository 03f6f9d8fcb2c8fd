#include "calvane/graph/internal/Outputs.h"

namespace quarn::calvane {

namespace {

void AssertSink(const PipelinePlugin& plugin, const Sink* sink) {
    if (sink == nullptr) {
        plugin.Error("Unable to connect an output to no sink (null)");
    }
}

} // namespace

void ConnectOnlyOutput(const PipelinePlugin& plugin, Source& source, Sink* sink) {
    AssertSink(plugin, sink);
    source.ConnectTo(sink);
}

void RefuseNamedOutput(const PipelinePlugin& plugin) {
    plugin.Error("Named sources are not supported by this plugin");
}

void ConnectNamedOutput(const PipelinePlugin& plugin, const SourceCollection& sources,
                        const std::string& sourceName, Sink* sink) {
    Source* const source = sources.GetSource(sourceName);
    AssertSink(plugin, sink);
    source->ConnectTo(sink);
}

void RefuseUnnamedOutput(const PipelinePlugin& plugin) {
    plugin.Error("Unnamed sources are not supported by this plugin");
}

} // namespace quarn::calvane
