#pragma once

#include <csignal>
#include <cstddef>

namespace quarn::calvane {

/// An alternate signal stack for the calling thread, for as long as this object lives, if Enable was called. Without
/// memory for it the thread runs without one.
///
/// Threads: made and destroyed on the thread that it is for.
class SignalStack {
public:
    SignalStack();
    ~SignalStack();
    SignalStack(const SignalStack&) = delete;
    SignalStack& operator=(const SignalStack&) = delete;

    /// Before the first one is made.
    static void Enable();

private:
    void* memory_ = nullptr;
    size_t bytes_ = 0;
};

} // namespace quarn::calvane
