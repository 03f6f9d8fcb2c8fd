#include "calvane/recording/internal/ClockWait.h"
#include "calvane/recording/RecordingClock.h"
#include "calvane/recording/internal/RecordingLog.h"

namespace quarn::calvane {

using boost::posix_time::ptime;

ClockWait::ClockWait(const ptime& newest, const boost::posix_time::time_duration& bound)
    : _newest(newest), _end(RecordingClock::steadyMicroseconds() + bound.total_microseconds()) {
    const ptime now = RecordingClock::now();
    _goesOn = !newest.is_special() && now < newest && bound > boost::posix_time::time_duration();
    if (_goesOn) {
        CALVANE_RECORDING_LOG(
            DRENN_CORE_LOG_WARNING,
            "The clock (%s) is behind the newest record (%s). Nothing is recorded until the time is "
            "synchronised, for at most %lld s",
            textOf(now).c_str(), textOf(newest).c_str(), static_cast<long long>(bound.total_seconds()));
    }
}

bool ClockWait::goesOn() {
    if (!_goesOn) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(_endMutex);
    const bool isThere = RecordingClock::now() >= _newest;
    const bool isTrue = isThere || RecordingClock::isSynchronised();
    if (_goesOn && (isTrue || RecordingClock::steadyMicroseconds() >= _end)) {
        _goesOn = false;
        CALVANE_RECORDING_LOG(
            isThere ? DRENN_CORE_LOG_NOTICE : DRENN_CORE_LOG_WARNING, "%s",
            isThere  ? "The clock is no longer behind the newest record; recording begins"
            : isTrue ? "The time is synchronised, and behind the newest record: what is recorded later "
                       "than now is going to be erased"
                     : "The time was not synchronised in time, and is behind the newest record: what is "
                       "recorded later than now is going to be erased");
    }
    return _goesOn;
}

} // namespace quarn::calvane
