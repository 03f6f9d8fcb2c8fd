#pragma once

#include <cerrno>

#include "quarn/osa/LockException.h"
#include "quarn/osa/Mutex.h"

namespace quarn::osa {

/// Holds a mutex for as long as it lives.
class MutexAutoLock {
public:
    /// Waits without limit.
    explicit MutexAutoLock(Mutex& mutex) : mutex_(mutex) { mutex_.Lock(); }
    /// Waits for at most `timeoutMs` milliseconds, then throws LockException "Lock Timeout" with the timeout
    /// flag set.
    MutexAutoLock(Mutex& mutex, unsigned int timeoutMs) : mutex_(mutex) {
        if (!mutex_.TryLock(timeoutMs)) {
            throw LockException(ETIMEDOUT, "Lock Timeout", true);
        }
    }
    ~MutexAutoLock() { mutex_.Unlock(); }
    MutexAutoLock(const MutexAutoLock&) = delete;
    MutexAutoLock& operator=(const MutexAutoLock&) = delete;

private:
    Mutex& mutex_;
};

} // namespace quarn::osa
