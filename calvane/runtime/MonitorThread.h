#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <string>

#include "calvane/Export.h"
#include "quarn/osa/Mutex.h"
#include "quarn/osa/Runnable.h"
#include "quarn/osa/Semaphore.h"
#include "quarn/osa/Thread.h"

namespace quarn::calvane {

/// The watchdog: ends the process when a registered thread has shown no sign of life for a whole period.
///
/// Threads:   all operations from any thread. A monitored thread sets its flag, with Kick, at least once per
///            period; the monitor clears it.
/// Errors:    a hung thread is logged ("Thread NAME failure") on the logger "calvane"; then the process ends
///            with exit status -1, which a parent sees as 255. Open streams are flushed, for at most 5 s;
///            neither handlers registered with atexit nor destructors of static objects run.
/// Lifetime:  watches from construction until Stop or destruction.
class CALVANE_API MonitorThread final : public osa::Runnable {
public:
    static constexpr unsigned int kPeriodMs = 45000;

    explicit MonitorThread(unsigned int periodMs = kPeriodMs);
    ~MonitorThread() override;
    MonitorThread(const MonitorThread&) = delete;
    MonitorThread& operator=(const MonitorThread&) = delete;

    /// The flag of a new entry, already set, or null when all 100 are taken. `name` is not copied and must
    /// live until the entry is deleted.
    bool* AddMonitorEntry(const char* name);
    /// An address that is no entry's flag is ignored.
    void DeleteMonitorEntry(const bool* entry);
    /// Shows a sign of life. Null is ignored.
    static void Kick(bool* entry) {
        if (entry != nullptr) {
            __atomic_store_n(entry, true, __ATOMIC_RELAXED);
        }
    }

    void Run() override;
    /// Ends the thread's wait at once; no further check is made.
    void Stop() override;

private:
    struct Entry {
        const char* name = nullptr; // Null: free.
        bool alive = true;          // Atomic, since monitored threads set it without the lock.
    };

    void CheckEntries();
    [[noreturn]] static void EndProcess(const std::string& threadName);

    const unsigned int periodMs_;
    std::unique_ptr<osa::Thread> thread_;
    std::atomic<bool> running_{true};
    osa::Mutex lock_;
    std::array<Entry, 100> entries_;
    osa::Semaphore wakeUp_{nullptr, 1, 1};
};

} // namespace quarn::calvane
