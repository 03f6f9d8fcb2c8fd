#pragma once

#include <memory>
#include <string>

#include "calvane/Export.h"

namespace quarn::calvane {

/// An event that threads of any pipeline share by its name: some wait, another wakes them all.
///
/// Nothing is remembered: a broadcast reaches only those who wait at that moment, and a wait may also end for
/// no reason, so waiters look for themselves at what they wait for.
///
/// Threads:  any, also at once on one object.
/// Errors:   the constructor throws LockException (code 2) "Error Init0", "Error Init1" or "Error Init3" when
///           the event's mutex, condition attributes or condition cannot be made.
/// Lifetime: the event comes with the first object of its name and stays until the process ends.
class CALVANE_API Sync {
public:
    explicit Sync(const std::string& name);
    virtual ~Sync();
    Sync(const Sync&) = delete;
    Sync& operator=(const Sync&) = delete;

    /// Waits for at most `timeoutMs` milliseconds of the real-time clock, which moves when somebody sets the
    /// time. Returns 0 when woken and ETIMEDOUT when the time has passed, as pthread_cond_timedwait does.
    int waitOnSyncEvent(int timeoutMs);
    /// Wakes every thread that waits. Returns 0, as pthread_cond_broadcast does.
    int broadcastSyncEvent();

private:
    class SyncFactory;
    class SyncImpl;
    const std::unique_ptr<SyncImpl> impl_;
};

} // namespace quarn::calvane
