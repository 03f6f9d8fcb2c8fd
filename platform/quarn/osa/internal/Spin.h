#pragma once

#include <sched.h>

#include <algorithm>

namespace quarn::osa {

/// Calls `attempt` up to `attempts` times until it returns true, first at once and then with growing pauses
/// of up to a microsecond, so that the other thread is not slowed down by being watched; not at all where
/// there is only one processor, since nothing changes there while this thread runs. Returns whether it did.
///
/// Going to sleep and being woken costs microseconds, which is what two threads that hand buffers to each
/// other would spend on every one of them.
template <typename Attempt>
bool SpinUntil(unsigned int attempts, const Attempt& attempt) {
    static const bool severalProcessors = [] {
        cpu_set_t allowed;
        return sched_getaffinity(0, sizeof allowed, &allowed) != 0 || CPU_COUNT(&allowed) > 1;
    }();
    if (!severalProcessors) {
        return false;
    }
    constexpr unsigned int kMostPauses = 16;
    unsigned int pauses = 1;
    for (unsigned int i = 0; i != attempts; ++i) {
        if (attempt()) {
            return true;
        }
        for (unsigned int pause = 0; pause != pauses; ++pause) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
            asm volatile("yield");
#endif
        }
        pauses = std::min(2 * pauses, kMostPauses);
    }
    return false;
}

} // namespace quarn::osa
