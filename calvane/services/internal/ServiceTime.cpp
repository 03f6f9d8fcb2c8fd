#include "calvane/services/internal/ServiceTime.h"

#include <cstdint>

#include "calvane/recording/RecordingTime.h"

namespace quarn::calvane {
namespace {

constexpr std::int64_t kMicroseconds = 1'000'000;

} // namespace

boost::posix_time::ptime timeFromService(const drenn::api::ServiceTime& time) {
    return timeFromUnixMicroseconds(std::int64_t{time.sec} * kMicroseconds + time.usec);
}

drenn::api::ServiceTime serviceFromTime(const boost::posix_time::ptime& time) {
    const std::int64_t ticks = unixMicrosecondsFromTime(time);
    return {static_cast<unsigned int>(ticks / kMicroseconds),
            static_cast<unsigned int>(ticks % kMicroseconds)};
}

} // namespace quarn::calvane
