#include "calvane/recording/internal/RecordingLog.h"

#include <boost/date_time/posix_time/posix_time.hpp>

#include "calvane/recording/RecordingTime.h"

namespace quarn::calvane {

std::atomic<void*> RecordingLog::cookie{nullptr};

std::string textOf(const boost::posix_time::ptime& time) {
    try {
        return boost::posix_time::to_simple_string(time);
    } catch (const std::exception&) {
        return std::to_string(ticksFromTime(time)) + " ticks";
    }
}

} // namespace quarn::calvane
