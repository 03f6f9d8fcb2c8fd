#include "quarn/osa/ArrivalCount.h"

#include "quarn/osa/Timeout.h"
#include "quarn/osa/internal/Deadline.h"
#include "quarn/osa/internal/Futex.h"
#include "quarn/osa/internal/Spin.h"

namespace quarn::osa {

namespace {

constexpr unsigned int kAttempts = 32;

} // namespace

// No wake-up is lost: a sleeper announces itself before it compares the count for the last time, RaiseTo
// changes the count before it looks for sleepers, and both orders are sequentially consistent.
bool ArrivalCount::WaitWhile(uint32_t seen, unsigned int timeoutMs) {
    const auto changed = [this, seen] { return Get() != seen; };
    if (timeoutMs == 0 || changed()) {
        return changed();
    }
    if (SpinUntil(kAttempts, changed)) {
        return true;
    }
    timespec deadline{};
    const bool limited = timeoutMs != kNoTimeout;
    if (limited) {
        deadline = DeadlineAfter(timeoutMs);
    }
    for (bool inTime = true; inTime;) {
        sleeping_.store(true, std::memory_order_seq_cst);
        if (count_.load(std::memory_order_seq_cst) != seen) {
            return true;
        }
        inTime = FutexWait(count_, seen, limited ? &deadline : nullptr);
    }
    return changed();
}

void ArrivalCount::Wake() {
    if (sleeping_.exchange(false, std::memory_order_seq_cst)) {
        FutexWakeAll(count_);
    }
}

} // namespace quarn::osa
