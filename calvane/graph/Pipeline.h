#pragma once

#include <memory>

#include "calvane/Export.h"
#include "calvane/graph/PipelinePlugin.h"

namespace quarn::calvane {

/// A chain of plugins that behaves as one: its input is the first plugin's, its output the last one's, its
/// generator the first one. Pipelines nest.
///
/// Threads:   built by one thread before it runs; GenerateBuffer on the pipeline's thread.
/// Ownership: AppendPlugin takes over the caller's reference in every case, refusals included.
/// Errors:    Exception with the text "Pipeline: " and what was wrong; a refused append changes nothing.
/// Lifetime:  once its output has been connected, nothing can be appended any more.
class CALVANE_API Pipeline : public PipelinePlugin {
public:
    Pipeline();
    ~Pipeline() override;

    /// Appends `plugin` and connects the output of the one before it to its default input. Only the first
    /// plugin may be one without an input.
    void AppendPlugin(PipelinePlugin* plugin);

private:
    class PipelineImpl;
    std::unique_ptr<PipelineImpl> impl_;
};

} // namespace quarn::calvane
