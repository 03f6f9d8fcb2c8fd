#include "quarn/osa/internal/Futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace quarn::osa {

namespace {

// 32-bit targets have two futex calls; only the newer one takes the 64-bit time that this build uses.
#ifdef SYS_futex_time64
constexpr long kFutexCall = SYS_futex_time64;
#else
constexpr long kFutexCall = SYS_futex;
#endif

static_assert(sizeof(time_t) == 8, "times must be 64-bit: compile with _TIME_BITS=64");
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "a futex word is a plain 32-bit integer");

void Wake(const std::atomic<uint32_t>& word, int threads) {
    syscall(kFutexCall, &word, FUTEX_WAKE_PRIVATE, threads, nullptr, nullptr, 0);
}

} // namespace

bool FutexWait(const std::atomic<uint32_t>& word, uint32_t expected, const timespec* deadline) {
    // The bitset form measures its absolute time on the monotonic clock.
    const long result = syscall(kFutexCall, &word, FUTEX_WAIT_BITSET_PRIVATE, expected, deadline, nullptr,
                                FUTEX_BITSET_MATCH_ANY);
    return result == 0 || errno != ETIMEDOUT;
}

void FutexWakeOne(const std::atomic<uint32_t>& word) {
    Wake(word, 1);
}

void FutexWakeAll(const std::atomic<uint32_t>& word) {
    Wake(word, INT_MAX);
}

} // namespace quarn::osa
