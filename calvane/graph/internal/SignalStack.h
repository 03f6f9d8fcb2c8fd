#pragma once

#include <csignal>
#include <cstddef>

namespace quarn::calvane {

/// Gives the calling thread a stack of its own for signal handlers, for as long as this object lives, if somebody
/// wants to handle signals on such stacks. Without memory for it the thread goes on without.
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
