#pragma once

#include <ctime>

namespace quarn::osa {

/// The point on the monotonic clock that lies `timeoutMs` milliseconds from now.
inline timespec DeadlineAfter(unsigned int timeoutMs) {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000);
    deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_nsec -= 1000000000L;
        ++deadline.tv_sec;
    }
    return deadline;
}

} // namespace quarn::osa
