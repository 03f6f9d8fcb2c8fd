#include "calvane/recording/RecordingTime.h"

#include <boost/date_time/gregorian/gregorian_types.hpp>

namespace quarn::calvane {

using boost::posix_time::ptime;

namespace {

// Made at first use: static objects of other files may be made from times.
const ptime& start1970() {
    static const ptime start(boost::gregorian::date(1970, 1, 1));
    return start;
}

} // namespace

std::int64_t ticksFromTime(const ptime& time) {
    constexpr std::int64_t kTicksOf2020 = 212444640000000000;
    static const ptime start(boost::gregorian::date(2020, 1, 1));
    const boost::posix_time::time_duration since = time - start;
    return since.is_special() ? since.ticks() : kTicksOf2020 + since.ticks();
}

ptime timeFromTicks(std::int64_t ticks) {
    return ptime(ptime::time_rep_type(ticks));
}

std::int64_t unixMicrosecondsFromTime(const ptime& time) {
    return (time - start1970()).ticks();
}

ptime timeFromUnixMicroseconds(std::int64_t microseconds) {
    return start1970() + boost::posix_time::microseconds(microseconds);
}

} // namespace quarn::calvane
