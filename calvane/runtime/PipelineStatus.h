#pragma once

#include <string>

#include "calvane/config/Description.h"
#include "calvane/graph/QueueStatistics.h"

namespace quarn::calvane {

/// How far a pipeline has come.
enum class PipelineState {
    Loaded,    ///< Not started yet.
    Running,   ///< Its thread runs.
    OutOfData, ///< Ended by itself.
    Stopped,   ///< Ended on request.
    Failed,    ///< Ended by an exception.
};

/// What is known of one pipeline at one moment.
struct PipelineStatus {
    std::string name;
    PipelineState state;
    std::string failure; ///< The exception's text when it failed, otherwise empty.
};

/// A failure that was reported while pipelines ran.
struct PipelineFailure {
    std::string text;   ///< "NAME shut down with fatal error: ..."
    std::string plugin; ///< The plugin that the exception came from; empty when it came from none.
};

/// What made loading fail, beside the exception.
struct LoadFailure {
    DescriptionPlace place; ///< Where the fault lies; the group is empty when that is not known.
    std::string detail;     ///< Details that the text of the exception does not have; may be empty.
};

/// What is known of the queue of one plugin at one moment.
struct QueueStatus {
    std::string name; ///< The plugin's.
    QueueStatistics statistics;
};

} // namespace quarn::calvane
