#pragma once

#include <atomic>
#include <cstdint>

#include "quarn/Export.h"

namespace quarn::osa {

/// How many things have arrived, and a place to wait for the next one. The count wraps around.
///
/// Raising the count costs no call of the kernel unless a thread sleeps here, and then one only, however many
/// arrive before that thread has woken.
///
/// Threads: RaiseTo from one thread at a time; the rest from any.
class QUARN_API ArrivalCount {
public:
    ArrivalCount() = default;
    ArrivalCount(const ArrivalCount&) = delete;
    ArrivalCount& operator=(const ArrivalCount&) = delete;

    uint32_t Get() const { return count_.load(std::memory_order_acquire); }
    /// What was written before is seen by whoever sees the new count.
    void RaiseTo(uint32_t count) {
        count_.store(count, std::memory_order_seq_cst);
        if (sleeping_.load(std::memory_order_seq_cst)) {
            Wake();
        }
    }
    /// Waits until the count is no longer `seen`, for at most `timeoutMs` milliseconds of the monotonic clock
    /// (kNoTimeout: without limit). Returns whether it changed.
    bool WaitWhile(uint32_t seen, unsigned int timeoutMs);

private:
    void Wake();

    std::atomic<uint32_t> count_{0};
    std::atomic<bool> sleeping_{false}; // Set by whoever is about to sleep, cleared by whoever wakes it.
};

} // namespace quarn::osa
