#pragma once

#include <csignal>
#include <functional>

#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"

namespace calvane_program {

/// Turns the first SIGINT or SIGTERM into a call of a function. The second one ends the process at once.
///
/// Lifetime: make it before any other thread, since threads inherit which signals they leave to it. It
///           watches from Watch to End; what comes before Watch waits until then.
class SignalWatcher final : private quarn::osa::Runnable {
public:
    SignalWatcher();
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

    std::function<void()> onSignal_;
    sigset_t signals_{};
    int signalFd_;
    int stopFd_;
    quarn::osa::Thread thread_;
};

} // namespace calvane_program
