#pragma once

#include <string>

#include "calvane/runtime/IPipelineReporter.h"
#include "calvane/testing/Collected.h"

namespace quarn::calvane::testkit {

/// Keeps what is reported: "NAME: MESSAGE" for each failure.
///
/// Threads: any.
class CollectingReporter : public IPipelineReporter {
public:
    void ReportFailure(const std::string& name, const std::string& message) override {
        reports.Add(name + ": " + message);
    }

    Collected<std::string> reports;
};

} // namespace quarn::calvane::testkit
