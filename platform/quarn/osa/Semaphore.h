#pragma once

#include <atomic>
#include <cstdint>

#include "quarn/Export.h"
#include "quarn/osa/Timeout.h"

namespace quarn::osa {

/// A counting semaphore with an upper limit.
///
/// Taking and releasing cost one atomic operation while nobody has to wait. The kernel is asked to wake a
/// thread only when the count leaves 0 and a thread sleeps.
///
/// Threads: any. The semaphore must outlive every call to it, a Release that has just let the last waiter
///          go included.
class QUARN_API Semaphore {
public:
    /// `name` appears in error texts. It is not copied; null stands for no name.
    /// Throws LockException (EINVAL) when `initial` is above `maximum`.
    Semaphore(const char* name, unsigned int initial, unsigned int maximum);
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    /// Takes one, waiting without limit.
    void Lock() { TryLock(kNoTimeout); }
    /// Takes one within `timeoutMs` milliseconds of the monotonic clock; 0 does not wait, kNoTimeout waits
    /// without limit. Returns false when the time-out passed.
    bool TryLock(unsigned int timeoutMs);
    /// Gives one back. Throws LockException (EOVERFLOW) when the count stands at the maximum, and changes
    /// nothing then.
    void Release();

private:
    bool TakeWithoutWaiting();
    bool TakeWaiting(unsigned int timeoutMs);

    const char* const name_;
    const uint32_t maximum_;
    std::atomic<uint32_t> count_;
    std::atomic<uint32_t> waiters_{0};
};

} // namespace quarn::osa
