// A wall clock that is shifted by the seconds in the file that CALVANE_CLOCK_SHIFT names, for a program that starts with this
// library preloaded. The file is read anew each time, so that a test can step the clock of a running program. The monotonic
// clock goes on as ever. Waits take as long as they would without a shift.

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace {

/// The C library's own, which this library takes the place of.
int KernelTime(clockid_t clock, timespec* time) {
#ifdef SYS_clock_gettime64
    return static_cast<int>(syscall(SYS_clock_gettime64, clock, time));
#else
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
#endif
}

long Shift() {
    static const char* const path = std::getenv("CALVANE_CLOCK_SHIFT");
    const int before = errno;
    char text[32] = {};
    if (path != nullptr) {
        const int file = open(path, O_RDONLY | O_CLOEXEC);
        if (file < 0 || read(file, text, sizeof text - 1) < 0) {
            std::abort(); // A test whose clock stands still would fail for no visible reason.
        }
        close(file);
    }
    errno = before;
    return std::strtol(text, nullptr, 10);
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const int result = KernelTime(clock, time);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        time->tv_sec += Shift();
    }
    return result;
}

int gettimeofday(timeval* time, void* /*zone*/) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    constexpr long kNanosecondsPerMicrosecond = 1000;
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / kNanosecondsPerMicrosecond;
    return 0;
}

time_t time(time_t* time) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (time != nullptr) {
        *time = now.tv_sec;
    }
    return now.tv_sec;
}

/// Deadlines are those of the shifted clock where they are not the monotonic one's, which are small.
int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
    constexpr time_t kLongAgo = 1'000'000'000;
    if (deadline->tv_sec < kLongAgo) {
        return pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, deadline);
    }
    const timespec unshifted{deadline->tv_sec - static_cast<time_t>(Shift()), deadline->tv_nsec};
    return pthread_cond_clockwait(condition, mutex, CLOCK_REALTIME, &unshifted);
}

} // extern "C"
