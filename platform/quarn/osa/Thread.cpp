#include "quarn/osa/Thread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <mutex>
#include <string>

#include "quarn/osa/Exception.h"
#include "quarn/osa/FormatText.h"
#include "quarn/osa/Warning.h"

namespace quarn::osa {

/// Lives as long as the Thread object and the running thread both need it.
struct Thread::State {
    State(const char* threadName, Runnable* body, size_t stack, int wantedPriority)
        : name(threadName != nullptr ? threadName : ""),
          runnable(body),
          stackBytes(stack),
          priority(wantedPriority) {}

    const std::string name;
    Runnable* const runnable;
    const size_t stackBytes;
    const int priority;

    std::atomic<bool> started{false};
    std::mutex lock; // Held by a joiner until the thread has ended, so that a second one waits as well.
    bool joinable = false;
    pthread_t handle{};
};

namespace {

constexpr size_t kKernelNameBytes = 15;
constexpr int kFirstNice = -20;
constexpr int kLastNice = 19;

thread_local const void* currentState = nullptr;

// Returns 0 or the errno value.
int ApplyNice(int nice) {
    sched_param none{};
    if (sched_getscheduler(0) != SCHED_OTHER && sched_setscheduler(0, SCHED_OTHER, &none) != 0) {
        return errno;
    }
    // Linux keeps a nice value per thread, whatever POSIX says of processes.
    const auto self = static_cast<id_t>(syscall(SYS_gettid));
    return setpriority(PRIO_PROCESS, self, std::min(nice, kLastNice)) == 0 ? 0 : errno;
}

int ApplyRealTime(int priority) {
    sched_param parameters{};
    parameters.sched_priority = priority;
    return sched_setscheduler(0, SCHED_FIFO, &parameters) == 0 ? 0 : errno;
}

int ApplyPriority(int priority) {
    if (priority == 0) {
        return 0;
    }
    if (priority > Thread::kLeastUrgentPriority || priority < Thread::kMostUrgentPriority) {
        return EINVAL;
    }
    return priority >= kFirstNice ? ApplyNice(priority) : ApplyRealTime(kFirstNice - priority);
}

void WarnOnceAboutPriority(const std::string& thread, int priority, int code) {
    static std::atomic<bool> warned{false};
    if (!warned.exchange(true)) {
        Warn(FormatText("Thread %s runs without priority %d, and so may others: %s", thread.c_str(), priority,
                        ErrnoText(code).c_str())
                 .c_str());
    }
}

size_t AllowedStackBytes(unsigned int wanted) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return std::max<size_t>(wanted, Thread::kMinimumStackBytes) / page * page;
}

} // namespace

Thread::Thread(const char* name, Runnable* runnable, unsigned int stackBytes, signed char priority)
    : state_(std::make_shared<State>(name, runnable, AllowedStackBytes(stackBytes), priority)) {}

Thread::~Thread() {
    const std::lock_guard<std::mutex> lock(state_->lock);
    if (state_->joinable) {
        pthread_detach(state_->handle);
    }
}

void Thread::Run() {
    if (state_->started.exchange(true)) {
        throw Exception("Thread %s is already started", state_->name.c_str());
    }
    const std::lock_guard<std::mutex> lock(state_->lock);
    auto argument = std::make_unique<std::shared_ptr<State>>(state_);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    int code = pthread_attr_setstacksize(&attributes, state_->stackBytes);
    if (code == 0) {
        code = pthread_create(&state_->handle, &attributes, &Thread::Body, argument.get());
    }
    pthread_attr_destroy(&attributes);
    if (code != 0) {
        state_->started = false;
        throw Exception("Cannot start thread %s with a stack of %zu bytes: %s", state_->name.c_str(),
                        state_->stackBytes, ErrnoText(code).c_str());
    }
    state_->joinable = true;
    (void)argument.release(); // The thread's own now.
}

void Thread::Join() {
    if (currentState == state_.get()) {
        throw Exception("Thread %s cannot wait for its own end", state_->name.c_str());
    }
    const std::lock_guard<std::mutex> lock(state_->lock);
    if (state_->joinable) {
        pthread_join(state_->handle, nullptr);
        state_->joinable = false;
    }
}

void* Thread::Body(void* argument) {
    const std::unique_ptr<std::shared_ptr<State>> holder(static_cast<std::shared_ptr<State>*>(argument));
    const State& state = **holder;
    currentState = &state;
    pthread_setname_np(pthread_self(), state.name.substr(0, kKernelNameBytes).c_str());
    if (const int code = ApplyPriority(state.priority); code != 0) {
        WarnOnceAboutPriority(state.name, state.priority, code);
    }
    state.runnable->Run();
    return nullptr;
}

void Thread::CurrentThread::MicroSleep(unsigned int microseconds) {
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const long nanoseconds = until.tv_nsec + static_cast<long>(microseconds % 1000000U) * 1000L;
    until.tv_sec += static_cast<time_t>(microseconds / 1000000U) + nanoseconds / 1000000000L;
    until.tv_nsec = nanoseconds % 1000000000L;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

} // namespace quarn::osa
