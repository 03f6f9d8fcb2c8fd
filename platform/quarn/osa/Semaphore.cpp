#include "quarn/osa/Semaphore.h"

#include <cerrno>

#include "quarn/osa/FormatText.h"
#include "quarn/osa/LockException.h"
#include "quarn/osa/internal/Deadline.h"
#include "quarn/osa/internal/Futex.h"
#include "quarn/osa/internal/Spin.h"

namespace quarn::osa {

namespace {

constexpr unsigned int kAttempts = 16;

} // namespace

// No wake-up is lost: a waiter announces itself before it looks at the count for the last time, a releaser
// raises the count before it looks for waiters, and both orders are sequentially consistent. While the count
// is above 0 and threads sleep, one woken thread is always on its way; it wakes the next if it leaves
// something.

Semaphore::Semaphore(const char* name, unsigned int initial, unsigned int maximum)
    : name_(name != nullptr ? name : ""), maximum_(maximum), count_(initial) {
    if (initial > maximum) {
        throw LockException(
            EINVAL, FormatText("Cannot create semaphore \"%s\": initial count %u is above maximum %u", name_,
                               initial, maximum));
    }
}

bool Semaphore::TryLock(unsigned int timeoutMs) {
    if (TakeWithoutWaiting()) {
        return true;
    }
    return timeoutMs != 0 && TakeWaiting(timeoutMs);
}

void Semaphore::Release() {
    uint32_t count = count_.load(std::memory_order_relaxed);
    do {
        if (count >= maximum_) {
            throw LockException(EOVERFLOW,
                                FormatText("Cannot release semaphore \"%s\": its count is at the maximum %u",
                                           name_, maximum_));
        }
    } while (!count_.compare_exchange_weak(count, count + 1, std::memory_order_seq_cst));
    if (count == 0 && waiters_.load(std::memory_order_seq_cst) != 0) {
        FutexWakeOne(count_);
    }
}

bool Semaphore::TakeWithoutWaiting() {
    uint32_t count = count_.load(std::memory_order_seq_cst);
    while (count != 0) {
        if (count_.compare_exchange_weak(count, count - 1, std::memory_order_seq_cst)) {
            if (count > 1 && waiters_.load(std::memory_order_seq_cst) != 0) {
                FutexWakeOne(count_);
            }
            return true;
        }
    }
    return false;
}

bool Semaphore::TakeWaiting(unsigned int timeoutMs) {
    if (SpinUntil(kAttempts, [this] { return TakeWithoutWaiting(); })) {
        return true;
    }
    timespec deadline{};
    const bool limited = timeoutMs != kNoTimeout;
    if (limited) {
        deadline = DeadlineAfter(timeoutMs);
    }
    waiters_.fetch_add(1, std::memory_order_seq_cst);
    bool taken = TakeWithoutWaiting();
    for (bool inTime = true; !taken && inTime;) {
        inTime = FutexWait(count_, 0, limited ? &deadline : nullptr);
        taken = TakeWithoutWaiting();
    }
    waiters_.fetch_sub(1, std::memory_order_seq_cst);
    return taken;
}

} // namespace quarn::osa
