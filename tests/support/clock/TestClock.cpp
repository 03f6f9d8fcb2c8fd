#include "support/clock/TestClock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <mutex>
#include <utility>

using quarn::osa::TimeStruct;

namespace {

// 32-bit targets have two calls each; this build uses 64-bit times.
#ifdef SYS_clock_gettime64
constexpr long kGetTime = SYS_clock_gettime64;
constexpr long kSleep = SYS_clock_nanosleep_time64;
#else
constexpr long kGetTime = SYS_clock_gettime;
constexpr long kSleep = SYS_clock_nanosleep;
#endif

constexpr long kNanosecondsPerMicrosecond = 1000;

// The clock is asked before and after all constructors and destructors of static objects: these have none.
std::mutex lock;
bool frozen = false;
TimeStruct shown;
TimeStruct lag;
std::vector<TimeStruct>* sleeps = nullptr;
std::function<void()>* atEndOfSleep = nullptr;

timespec ToTimespec(const TimeStruct& time) {
    return {static_cast<time_t>(time.seconds),
            static_cast<long>(time.microseconds) * kNanosecondsPerMicrosecond};
}

TimeStruct FromTimespec(const timespec& time) {
    return {static_cast<unsigned int>(time.tv_sec),
            static_cast<unsigned int>(time.tv_nsec / kNanosecondsPerMicrosecond)};
}

} // namespace

namespace TestClock {

void Set(const TimeStruct& now) {
    const std::lock_guard<std::mutex> guard(lock);
    frozen = true;
    shown = now;
    delete sleeps;
    sleeps = new std::vector<TimeStruct>;
}

void Advance(const TimeStruct& interval) {
    const std::lock_guard<std::mutex> guard(lock);
    shown = shown + interval;
}

void AtEndOfSleep(std::function<void()> action) {
    const std::lock_guard<std::mutex> guard(lock);
    atEndOfSleep = new std::function<void()>(std::move(action));
}

std::vector<TimeStruct> GetSleeps() {
    const std::lock_guard<std::mutex> guard(lock);
    return *sleeps;
}

void Release() {
    const std::lock_guard<std::mutex> guard(lock);
    frozen = false;
}

void LagBehind(const TimeStruct& interval) {
    const std::lock_guard<std::mutex> guard(lock);
    lag = interval;
}

} // namespace TestClock

// Seen by the libraries, so not hidden like the rest of a program.
extern "C" [[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const std::lock_guard<std::mutex> guard(lock);
    if (clock == CLOCK_MONOTONIC && frozen) {
        *time = ToTimespec(shown);
        return 0;
    }
    const long result = syscall(kGetTime, clock, time);
    if (clock == CLOCK_MONOTONIC && result == 0) {
        *time = ToTimespec(FromTimespec(*time) - lag);
    }
    return static_cast<int>(result);
}

// Returns the error, as POSIX has it.
extern "C" [[gnu::visibility("default")]] int clock_nanosleep(clockid_t clock, int flags,
                                                              const timespec* time, timespec* left) {
    std::unique_lock<std::mutex> guard(lock);
    if (clock != CLOCK_MONOTONIC || !frozen || flags != TIMER_ABSTIME) {
        guard.unlock();
        return syscall(kSleep, clock, flags, time, left) == 0 ? 0 : errno;
    }
    sleeps->push_back(FromTimespec(*time) - shown);
    shown = FromTimespec(*time);
    const std::unique_ptr<std::function<void()>> action(std::exchange(atEndOfSleep, nullptr));
    guard.unlock();
    if (action) {
        (*action)();
    }
    return 0;
}
