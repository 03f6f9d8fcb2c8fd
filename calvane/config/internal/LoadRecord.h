#pragma once

#include <string>
#include <vector>

#include "calvane/config/Description.h"
#include "calvane/config/PipelineThreads.h"
#include "calvane/config/internal/ConnectionTaps.h"

namespace quarn::calvane {

/// What a manager keeps from one load to the next.
///
/// Threads: the one that loads pipelines.
class LoadRecord {
public:
    ConnectionTaps taps;
    /// Of all pipelines that were loaded.
    PipelineThreads threads;
    /// Settings that no plugin read, in the order in which the plugins were made.
    std::vector<DescriptionPlace> unusedSettings;
    /// Where the loader was last: after a failure, the place at fault.
    DescriptionPlace place;
    /// What the text of a failure does not say; empty when there is nothing to add.
    std::string detail;
};

} // namespace quarn::calvane
