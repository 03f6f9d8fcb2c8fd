#pragma once

#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <string>

#include "drenn/core/Logging.h"

namespace quarn::calvane {

/// Where the recorder logs. The cookie is RecordingManager's, from init to deinit.
struct RecordingLog {
    static std::atomic<void*> cookie;
};

/// Logs for the recorder. The arguments are worked out only if the line is going to be written.
#define CALVANE_RECORDING_LOG(priority, ...)                             \
    do {                                                                 \
        void* const recordingLogCookie = RecordingLog::cookie;           \
        if (drenn_core_log_enabled(recordingLogCookie, priority) != 0) { \
            drenn_core_log(recordingLogCookie, priority, __VA_ARGS__);   \
        }                                                                \
    } while (false)

/// For log lines. Also for a time that no calendar has.
std::string textOf(const boost::posix_time::ptime& time);

} // namespace quarn::calvane
