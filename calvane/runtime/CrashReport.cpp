#include "calvane/runtime/CrashReport.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "calvane/graph/internal/RunningPlugin.h"
#include "calvane/graph/internal/SignalStack.h"

namespace quarn::calvane {

namespace {

struct Fault {
    int number;
    const char* name;
    struct sigaction before;
};

std::array<Fault, 5> faults{{{SIGSEGV, "SIGSEGV", {}},
                             {SIGBUS, "SIGBUS", {}},
                             {SIGILL, "SIGILL", {}},
                             {SIGFPE, "SIGFPE", {}},
                             {SIGABRT, "SIGABRT", {}}}};
const char* programName = "";

/// A line that is put together without memory from the heap. What does not fit is cut off.
class Line {
public:
    Line& operator<<(const char* text) {
        const size_t length = std::strlen(text);
        const size_t room = text_.size() - length_;
        std::memcpy(text_.data() + length_, text, length < room ? length : room);
        length_ += length < room ? length : room;
        return *this;
    }

    Line& operator<<(int number) {
        std::array<char, 12> digits{};
        size_t first = digits.size() - 1; // The last one stays the end of the text.
        for (int rest = number; rest > 0 || first == digits.size() - 1; rest /= 10) {
            digits[--first] = static_cast<char>('0' + rest % 10);
        }
        return *this << digits.data() + first;
    }

    void Write() const { (void)!write(STDERR_FILENO, text_.data(), length_); }

private:
    std::array<char, 256> text_{};
    size_t length_ = 0;
};

// Calls nothing but what signal handlers may call.
void Report(int number) {
    const int savedErrno = errno;
    Line line;
    line << programName << ": ";
    for (const Fault& fault : faults) {
        if (fault.number == number) {
            line << fault.name;
            sigaction(number, &fault.before, nullptr);
        }
    }
    if (const char* const plugin = RunningPlugin::Get()) {
        line << " in plugin " << plugin;
    }
    std::array<char, 16> thread{};
    prctl(PR_GET_NAME, thread.data());
    line << " on thread " << thread.data() << " (" << gettid() << ")\n";
    line.Write();
    errno = savedErrno;
    // Delivered to whoever handled it before, once this handler has returned.
    raise(number);
}

} // namespace

void InstallCrashReport(const char* program) {
    programName = program;
    SignalStack::Enable();
    for (Fault& fault : faults) {
        struct sigaction action {};
        action.sa_handler = &Report;
        action.sa_flags = SA_ONSTACK;
        sigemptyset(&action.sa_mask);
        sigaction(fault.number, &action, &fault.before);
    }
}

} // namespace quarn::calvane
