#include "quarn/osa/Mutex.h"

#include <cerrno>
#include <ctime>

#include "quarn/osa/FormatText.h"
#include "quarn/osa/LockException.h"
#include "quarn/osa/internal/Deadline.h"
#include "quarn/osa/internal/Spin.h"

namespace quarn::osa {

namespace {

constexpr unsigned int kAttempts = 12;

// The thread sanitizer of g++ 12 does not know the call that waits for a lock on the monotonic clock.
#ifdef __SANITIZE_THREAD__
constexpr bool kClockLockIsHidden = true;
#else
constexpr bool kClockLockIsHidden = false;
#endif

class MutexAttributes {
public:
    MutexAttributes() {
        pthread_mutexattr_init(&attributes_);
        // Without this check a thread that locks twice would hang for good.
        pthread_mutexattr_settype(&attributes_, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutexattr_setprotocol(&attributes_, PTHREAD_PRIO_INHERIT);
    }
    ~MutexAttributes() { pthread_mutexattr_destroy(&attributes_); }
    MutexAttributes(const MutexAttributes&) = delete;
    MutexAttributes& operator=(const MutexAttributes&) = delete;

    pthread_mutexattr_t* Get() { return &attributes_; }
    void DropInheritance() { pthread_mutexattr_setprotocol(&attributes_, PTHREAD_PRIO_NONE); }

private:
    pthread_mutexattr_t attributes_{};
};

} // namespace

Mutex::Mutex(const char* name) : name_(name), mutex_() {
    MutexAttributes attributes;
    int code = pthread_mutex_init(&mutex_, attributes.Get());
    if (code == ENOTSUP) { // A kernel built without PI futexes; emulators are such kernels.
        attributes.DropInheritance();
        code = pthread_mutex_init(&mutex_, attributes.Get());
    }
    if (code != 0) {
        Fail("create", code);
    }
}

Mutex::~Mutex() {
    pthread_mutex_destroy(&mutex_);
}

bool Mutex::TryLock(unsigned int timeoutMs) {
    if (timeoutMs == kNoTimeout) {
        Lock();
        return true;
    }
    int code = pthread_mutex_trylock(&mutex_);
    if (kClockLockIsHidden && code == EBUSY && timeoutMs != 0) {
        return PollLock(timeoutMs);
    }
    if (code == EBUSY && timeoutMs != 0) {
        const timespec deadline = DeadlineAfter(timeoutMs);
        code = pthread_mutex_clocklock(&mutex_, CLOCK_MONOTONIC, &deadline);
        if (code == EINVAL) {
            return PollLock(timeoutMs);
        }
    }
    if (code == EBUSY || code == ETIMEDOUT) {
        return false;
    }
    if (code != 0) {
        Fail("lock", code);
    }
    return true;
}

void Mutex::LockContended() {
    if (SpinUntil(kAttempts, [this] { return pthread_mutex_trylock(&mutex_) == 0; })) {
        return;
    }
    if (const int code = pthread_mutex_lock(&mutex_); code != 0) {
        Fail("lock", code);
    }
}

// Kernels before 5.14 cannot wait for a priority-inheriting lock on the monotonic clock, and the clock that
// they do offer jumps when somebody sets the time.
bool Mutex::PollLock(unsigned int timeoutMs) {
    const timespec deadline = DeadlineAfter(timeoutMs);
    for (;;) {
        const int code = pthread_mutex_trylock(&mutex_);
        if (code == 0) {
            return true;
        }
        if (code != EBUSY) {
            Fail("lock", code);
        }
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec > deadline.tv_sec ||
            (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec)) {
            return false;
        }
        const timespec pause{0, 1000000L};
        clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
    }
}

void Mutex::Fail(const char* action, int code) const {
    throw LockException(code, FormatText("Cannot %s mutex \"%s\": %s", action, name_ != nullptr ? name_ : "",
                                         ErrnoText(code).c_str()));
}

} // namespace quarn::osa
