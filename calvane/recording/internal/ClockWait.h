#pragma once

#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>
#include <mutex>

namespace quarn::calvane {

/// Waits, after a start, for a clock that is behind what has been recorded: one without a battery comes up years behind,
/// and the first record would erase everything recorded later. The wait is over when the clock is there, when the system
/// says that it is synchronised, or after a bound. A clock that is set back later is none of its business.
///
/// Threads: any.
class ClockWait {
public:
    /// `newest`: of all records; not-a-date-time if there are none.
    ClockWait(const boost::posix_time::ptime& newest, const boost::posix_time::time_duration& bound);

    /// Whether the clock's time is not to be used yet. Says in the log when that ends, and why.
    bool goesOn();

private:
    const boost::posix_time::ptime _newest;
    const std::int64_t _end; // By the steady clock.
    std::atomic<bool> _goesOn;
    std::mutex _endMutex; // One logs the end.
};

} // namespace quarn::calvane
