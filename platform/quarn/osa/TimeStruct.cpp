#include "quarn/osa/TimeStruct.h"

#include <ctime>

namespace quarn::osa {

TimeStruct::TimeStruct(bool now) {
    if (now) {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        seconds = static_cast<unsigned int>(time.tv_sec);
        microseconds = static_cast<unsigned int>(time.tv_nsec / 1000);
    }
}

TimeStruct operator-(const TimeStruct& a, const TimeStruct& b) {
    if (a < b) {
        return {};
    }
    const unsigned int borrow = a.microseconds < b.microseconds ? 1 : 0;
    return {a.seconds - b.seconds - borrow,
            a.microseconds + borrow * TimeStruct::kMicrosecondsPerSecond - b.microseconds};
}

TimeStruct operator+(const TimeStruct& a, const TimeStruct& b) {
    return {a.seconds + b.seconds, a.microseconds + b.microseconds};
}

} // namespace quarn::osa
