#pragma once

#include <pthread.h>

#include "quarn/Export.h"
#include "quarn/osa/Timeout.h"

namespace quarn::osa {

/// Mutual exclusion between threads of one process, with priority inheritance: a thread that holds the lock
/// runs at least at the priority of the most urgent thread that waits for it.
///
/// Threads: any. Not recursive.
/// Errors:  LockException with the errno value as its code: EDEADLK when the calling thread holds the lock
///          already, EPERM when a thread that does not hold it gives it back.
class QUARN_API Mutex {
public:
    Mutex() : Mutex(nullptr) {}
    /// `name` appears in error texts. It is not copied; null stands for no name.
    explicit Mutex(const char* name);
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Waits without limit.
    void Lock() {
        if (pthread_mutex_trylock(&mutex_) != 0) {
            LockContended();
        }
    }
    /// Waits for at most `timeoutMs` milliseconds of the monotonic clock; 0 does not wait, kNoTimeout waits
    /// without limit. Returns whether the lock was taken.
    bool TryLock(unsigned int timeoutMs);
    void Unlock() {
        if (const int code = pthread_mutex_unlock(&mutex_); code != 0) {
            Fail("unlock", code);
        }
    }

    /// The name given at construction, or null.
    const char* GetName() const { return name_; }

private:
    [[noreturn]] void Fail(const char* action, int code) const;
    void LockContended();
    bool PollLock(unsigned int timeoutMs);

    const char* const name_;
    pthread_mutex_t mutex_;
};

} // namespace quarn::osa
