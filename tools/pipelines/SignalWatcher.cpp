#include "pipelines/SignalWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "quarn/osa/Exception.h"
#include "quarn/osa/FormatText.h"

namespace calvane_program {

SignalWatcher::SignalWatcher(std::function<void()> onHangUp)
    : onHangUp_(std::move(onHangUp)), signalFd_(-1), stopFd_(-1), thread_("Signals", this, 0, 0) {
    sigemptyset(&ends_);
    sigaddset(&ends_, SIGINT);
    sigaddset(&ends_, SIGTERM);
    sigset_t taken = ends_;
    if (onHangUp_) {
        sigaddset(&taken, SIGHUP); // Stays blocked for good: one that comes late ends nothing.
    }
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    signalFd_ = signalfd(-1, &taken, SFD_CLOEXEC);
    stopFd_ = eventfd(0, EFD_CLOEXEC);
    if (signalFd_ < 0 || stopFd_ < 0) {
        throw quarn::osa::Exception("Cannot watch for signals: %s", quarn::osa::ErrnoText(errno).c_str());
    }
}

SignalWatcher::~SignalWatcher() {
    End();
    close(signalFd_);
    close(stopFd_);
}

void SignalWatcher::Watch(std::function<void()> onSignal) {
    onSignal_ = std::move(onSignal);
    thread_.Run();
}

void SignalWatcher::End() {
    Stop();
    thread_.Join();
    pthread_sigmask(SIG_UNBLOCK, &ends_, nullptr);
}

void SignalWatcher::Run() {
    std::array<pollfd, 2> events{{{signalFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}}};
    for (bool ending = false; !ending;) {
        while (poll(events.data(), events.size(), -1) < 0 && errno == EINTR) {
        }
        if (events[0].revents == 0) {
            return;
        }
        ending = !TakeHangUp();
    }
    // From here on this thread lets the signals have their ordinary effect.
    pthread_sigmask(SIG_UNBLOCK, &ends_, nullptr);
    onSignal_();
    // Stays to receive the next signal.
    while (poll(&events[1], 1, -1) < 0 && errno == EINTR) {
    }
}

bool SignalWatcher::TakeHangUp() const {
    signalfd_siginfo taken{};
    (void)!read(signalFd_, &taken, sizeof taken); // Poll has said that there is one.
    if (taken.ssi_signo != SIGHUP) {
        return false;
    }
    onHangUp_();
    return true;
}

void SignalWatcher::Stop() {
    const uint64_t one = 1;
    (void)!write(stopFd_, &one, sizeof one);
}

} // namespace calvane_program
