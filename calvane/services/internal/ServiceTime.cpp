#include "calvane/services/internal/ServiceTime.h"

#include <cstdint>

namespace quarn::calvane {
namespace {

constexpr std::int64_t kMicroseconds = 1'000'000;
const boost::posix_time::ptime kEpoch(boost::gregorian::date(1970, 1, 1));

} // namespace

boost::posix_time::ptime timeFromService(const drenn::api::ServiceTime& time) {
    return kEpoch + boost::posix_time::microseconds(std::int64_t{time.sec} * kMicroseconds + time.usec);
}

drenn::api::ServiceTime serviceFromTime(const boost::posix_time::ptime& time) {
    const std::int64_t ticks = (time - kEpoch).ticks();
    return {static_cast<unsigned int>(ticks / kMicroseconds),
            static_cast<unsigned int>(ticks % kMicroseconds)};
}

} // namespace quarn::calvane
