#pragma once

#include "calvane/Export.h"
#include "calvane/runtime/IPipelineReporter.h"

namespace quarn::calvane {

/// The reporter of an environment that was given none: it does nothing.
class CALVANE_API DefaultPipelineReporter : public IPipelineReporter {
public:
    void ReportFailure(const std::string&, const std::string&) override {}
};

} // namespace quarn::calvane
