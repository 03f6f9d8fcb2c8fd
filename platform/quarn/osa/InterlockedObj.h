#pragma once

#include <atomic>

namespace quarn::osa {

/// Changes an integer atomically and returns its new value. The processor does the work; there is no lock.
///
/// Threads: any, also at once on the same integer, as long as every change goes through one of these objects.
class InterlockedObj {
public:
    int Increment(int& value) { return __atomic_add_fetch(&value, 1, __ATOMIC_ACQ_REL); }
    int Decrement(int& value) { return __atomic_sub_fetch(&value, 1, __ATOMIC_ACQ_REL); }
    int Read(const int& value) const { return __atomic_load_n(&value, __ATOMIC_ACQUIRE); }

private:
    // Public classes hold these objects. A second form with a lock, for processors that need one, would give
    // them another layout in a program that is compiled for such a processor than in the library.
    static_assert(ATOMIC_INT_LOCK_FREE == 2, "compile for the processor that the library is built for");
};

} // namespace quarn::osa
