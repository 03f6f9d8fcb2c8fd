#pragma once

#include "calvane/runtime/PipelineManager.h"
#include "pipelines/CheckedDescription.h"

namespace calvane_program {

/// The pipelines of one description, built and connected. Faults are printed with their place in it.
class DescribedPipelines {
public:
    /// `description` outlives this object.
    explicit DescribedPipelines(CheckedDescription& description) : description_(description) {}

    /// Loads the description. Returns false, with a line on the standard error stream, when it is bad.
    bool Load();
    /// Prints the first failure while the pipelines ran, with the plugin that it came from.
    void PrintFailure();

    quarn::calvane::PipelineManager& GetManager() { return manager_; }

private:
    CheckedDescription& description_;
    quarn::calvane::PipelineManager manager_;
};

} // namespace calvane_program
