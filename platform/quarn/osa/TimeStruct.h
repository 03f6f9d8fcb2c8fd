#pragma once

#include "quarn/Export.h"

namespace quarn::osa {

/// A point in time or an interval: seconds, then microseconds below one million.
struct QUARN_API TimeStruct {
    unsigned int seconds = 0;
    unsigned int microseconds = 0;

    /// Zero.
    TimeStruct() = default;
    /// Microseconds of one million and more are carried over into the seconds.
    TimeStruct(unsigned int secondsIn, unsigned int microsecondsIn)
        : seconds(secondsIn + microsecondsIn / kMicrosecondsPerSecond),
          microseconds(microsecondsIn % kMicrosecondsPerSecond) {}
    /// The current time of the monotonic clock if `now` is set, otherwise zero.
    explicit TimeStruct(bool now);

    bool IsZero() const { return seconds == 0 && microseconds == 0; }

    static constexpr unsigned int kMicrosecondsPerSecond = 1000000;
};

inline bool operator==(const TimeStruct& a, const TimeStruct& b) {
    return a.seconds == b.seconds && a.microseconds == b.microseconds;
}
inline bool operator!=(const TimeStruct& a, const TimeStruct& b) {
    return !(a == b);
}
inline bool operator<(const TimeStruct& a, const TimeStruct& b) {
    return a.seconds != b.seconds ? a.seconds < b.seconds : a.microseconds < b.microseconds;
}
inline bool operator>(const TimeStruct& a, const TimeStruct& b) {
    return b < a;
}
inline bool operator<=(const TimeStruct& a, const TimeStruct& b) {
    return !(b < a);
}
inline bool operator>=(const TimeStruct& a, const TimeStruct& b) {
    return !(a < b);
}

/// The interval from `b` to `a`; zero when `a` is the earlier one, since intervals have no sign.
QUARN_API TimeStruct operator-(const TimeStruct& a, const TimeStruct& b);
QUARN_API TimeStruct operator+(const TimeStruct& a, const TimeStruct& b);

/// The current time of the monotonic clock, which no change of the date moves.
struct QUARN_API TimeMonotonic : TimeStruct {
    TimeMonotonic() : TimeStruct(true) {}
};

} // namespace quarn::osa
