#pragma once

#include <atomic>

#include "quarn/Export.h"
#include "quarn/osa/MutexAutoLock.h"

namespace quarn::osa {

#if ATOMIC_INT_LOCK_FREE == 2

/// Changes an integer atomically and returns its new value. The processor does the work; there is no lock.
///
/// Threads: any, also at once on the same integer, as long as every change goes through one of these objects.
class InterlockedObj {
public:
    int Increment(int& value) { return __atomic_add_fetch(&value, 1, __ATOMIC_ACQ_REL); }
    int Decrement(int& value) { return __atomic_sub_fetch(&value, 1, __ATOMIC_ACQ_REL); }
    int Read(const int& value) const { return __atomic_load_n(&value, __ATOMIC_ACQUIRE); }
};

#else

/// Changes an integer atomically and returns its new value, under a lock of its own.
///
/// Threads: any, also at once on the same integer, as long as every access goes through this one object.
class InterlockedObj {
public:
    int Increment(int& value) {
        MutexAutoLock lock(mutex_);
        return ++value;
    }
    int Decrement(int& value) {
        MutexAutoLock lock(mutex_);
        return --value;
    }
    int Read(const int& value) const {
        MutexAutoLock lock(mutex_);
        return value;
    }

private:
    mutable Mutex mutex_{"_InterlockedMutex"};
};

#endif

} // namespace quarn::osa
