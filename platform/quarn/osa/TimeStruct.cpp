#include "quarn/osa/TimeStruct.h"

#include <sys/types.h>

#include <ctime>

namespace quarn::osa {

// Where offsets in files have 32 bits, a write at 5 GiB lands at 1 GiB without an error; 32-bit times end in 2038.
static_assert(sizeof(off_t) == 8, "build with _FILE_OFFSET_BITS=64");
static_assert(sizeof(std::time_t) == 8, "build with _TIME_BITS=64");

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
