#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <string>

#include "calvane/recording/RecordingManager.h"
#include "drenn/core/Logging.h"

namespace quarn::calvane {

/// Logs for the recorder. The arguments are worked out only if the line is going to be written.
#define CALVANE_RECORDING_LOG(priority, ...)                                           \
    do {                                                                               \
        if (drenn_core_log_enabled(RecordingManager::getLogCookie(), priority) != 0) { \
            drenn_core_log(RecordingManager::getLogCookie(), priority, __VA_ARGS__);   \
        }                                                                              \
    } while (false)

/// For log lines. Also for a time that no calendar has.
std::string textOf(const boost::posix_time::ptime& time);

} // namespace quarn::calvane
