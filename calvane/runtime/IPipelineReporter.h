#pragma once

#include <string>

#include "calvane/Export.h"

namespace quarn::calvane {

/// Receives the failures that end a pipeline or a plugin's thread.
class CALVANE_API IPipelineReporter {
public:
    /// `pipelineName`: the pipeline, or the plugin whose own thread failed. Called from any thread.
    virtual void ReportFailure(const std::string& pipelineName, const std::string& message) = 0;
    virtual ~IPipelineReporter() = default;
};

/// The reporter of an environment that was given none: it does nothing.
class CALVANE_API DefaultPipelineReporter : public IPipelineReporter {
public:
    void ReportFailure(const std::string&, const std::string&) override {}
};

} // namespace quarn::calvane
