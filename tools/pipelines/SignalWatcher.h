#pragma once

#include <csignal>
#include <functional>

#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"

namespace calvane_program {

/// Turns the first SIGINT or SIGTERM into a call of a function. The second one ends the process at once. SIGHUP, too,
/// becomes a call each time until then, if there is a function for it.
///
/// Lifetime: make it before any other thread, since threads inherit which signals they leave to it. It
///           watches from Watch to End; what comes before Watch waits until then.
class SignalWatcher final : private quarn::osa::Runnable {
public:
    /// `onHangUp` is called on the watcher's own thread and does not throw. Without it SIGHUP has its ordinary
    /// effect.
    explicit SignalWatcher(std::function<void()> onHangUp = nullptr);
    ~SignalWatcher() override;
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

    /// `onSignal` is called on the watcher's own thread.
    void Watch(std::function<void()> onSignal);
    /// No call is made or under way any more; signals have their ordinary effect again.
    void End();

private:
    void Run() override;
    void Stop() override;
    /// Whether the signal that came is SIGHUP.
    bool TakeHangUp() const;

    const std::function<void()> onHangUp_;
    std::function<void()> onSignal_;
    sigset_t ends_{};
    int signalFd_;
    int stopFd_;
    quarn::osa::Thread thread_;
};

} // namespace calvane_program
