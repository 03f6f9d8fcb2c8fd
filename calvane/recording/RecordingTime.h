#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>

#include "calvane/Export.h"

namespace quarn::calvane {

// Times are in UTC. The special ones (not-a-date-time, the infinite ones) keep the library's special numbers.

/// What a record's time is stored as: the ticks of a posix time, which are microseconds from day number 0 of
/// its calendar. 2020-01-01 00:00:00 is 212444640000000000.
CALVANE_API std::int64_t ticksFromTime(const boost::posix_time::ptime& time);
CALVANE_API boost::posix_time::ptime timeFromTicks(std::int64_t ticks);

/// What clients get: microseconds since 1970-01-01 00:00:00.
CALVANE_API std::int64_t unixMicrosecondsFromTime(const boost::posix_time::ptime& time);
CALVANE_API boost::posix_time::ptime timeFromUnixMicroseconds(std::int64_t microseconds);

} // namespace quarn::calvane
