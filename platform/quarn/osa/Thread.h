#pragma once

#include <memory>

#include "quarn/Export.h"
#include "quarn/osa/Runnable.h"

namespace quarn::osa {

/// A thread with a name, a stack size and a priority.
///
/// Threads:   Join from any thread and from several at once; Run and destruction from the owner's.
/// Ownership: the runnable stays the caller's and must live until its Run has returned.
/// Errors:    Exception that names the thread, when it cannot be started, is started twice or joins itself.
/// Lifetime:  created -> Run -> the runnable's Run returns -> Join. Destroying a thread that was never
///            joined lets it run on by itself.
class QUARN_API Thread {
public:
    /// No thread gets a smaller stack: the C++ runtime, the dynamic linker and the logger need most of it.
    /// Stacks cost address space at once, but memory only where they were touched.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    static constexpr unsigned int kMinimumStackBytes = 4096 * 1024; // Instrumented frames are larger.
#else
    static constexpr unsigned int kMinimumStackBytes = 256 * 1024;
#endif

    static constexpr int kMostUrgentPriority = -119;
    static constexpr int kLeastUrgentPriority = 20;

    /// `name` is copied; `ps -L` shows its first 15 bytes. `stackBytes` is raised to kMinimumStackBytes.
    /// `priority`: 0 takes over the scheduling of the thread that calls Run; -20 to 20 are nice values, 20
    /// meaning 19; -21 to -119 are the real-time (SCHED_FIFO) priorities 1 to 99. Others, and those that the
    /// process has no right to, are ignored with one warning for the whole process.
    Thread(const char* name, Runnable* runnable, unsigned int stackBytes, signed char priority);
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Starts the thread, which calls the runnable's Run.
    void Run();
    /// Waits until the thread has ended; returns at once if it was never started or has been joined before.
    void Join();

    /// What a thread does to itself.
    struct QUARN_API CurrentThread {
        /// Sleeps for `microseconds` of the monotonic clock; signals do not cut it short.
        static void MicroSleep(unsigned int microseconds);
    };

private:
    struct State;
    static void* Body(void* argument);

    const std::shared_ptr<State> state_;
};

} // namespace quarn::osa
