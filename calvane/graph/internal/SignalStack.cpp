#include "calvane/graph/internal/SignalStack.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

namespace quarn::calvane {

namespace {

constexpr size_t kHandlerBytes = 16384; // Beyond what the kernel itself puts there.

std::atomic<bool> enabled{false};

} // namespace

SignalStack::SignalStack() {
    if (!enabled) {
        return;
    }
    const long least = sysconf(_SC_MINSIGSTKSZ); // Depends on the processor's registers.
    bytes_ = kHandlerBytes + (least > 0 ? static_cast<size_t>(least) : 0);
    memory_ = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory_ == MAP_FAILED) {
        memory_ = nullptr;
        return;
    }
    stack_t stack{};
    stack.ss_sp = memory_;
    stack.ss_size = bytes_;
    sigaltstack(&stack, nullptr);
}

SignalStack::~SignalStack() {
    if (memory_ != nullptr) {
        stack_t none{};
        none.ss_flags = SS_DISABLE;
        sigaltstack(&none, nullptr);
        munmap(memory_, bytes_);
    }
}

void SignalStack::Enable() {
    enabled = true;
}

} // namespace quarn::calvane
