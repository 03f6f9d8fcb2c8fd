#pragma once

#include <string>

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

/// What is known of the queue of one plugin at one moment.
struct QueueStatus {
    std::string name; ///< The plugin's.
    QueueStatistics statistics;
};

} // namespace quarn::calvane
