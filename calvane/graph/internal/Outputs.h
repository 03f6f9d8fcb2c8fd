#pragma once

#include "calvane/graph/PipelinePlugin.h"
#include "calvane/graph/Source.h"
#include "calvane/graph/SourceCollection.h"

namespace quarn::calvane {

// What the base classes with outputs have in common.

/// Connects the only output of `plugin`.
void ConnectOnlyOutput(const PipelinePlugin& plugin, Source& source, Sink* sink);
[[noreturn]] void RefuseNamedOutput(const PipelinePlugin& plugin);

/// Connects one of the named outputs of `plugin`.
void ConnectNamedOutput(const PipelinePlugin& plugin, const SourceCollection& sources,
                        const std::string& sourceName, Sink* sink);
[[noreturn]] void RefuseUnnamedOutput(const PipelinePlugin& plugin);

} // namespace quarn::calvane
