#include "calvane/runtime/Sync.h"

#include <pthread.h>

#include <ctime>
#include <map>
#include <utility>

#include "quarn/osa/LockException.h"
#include "quarn/osa/MutexAutoLock.h"

namespace quarn::calvane {

namespace {

constexpr int kInitialisationFailed = 2;
constexpr long kNanosecondsPerMillisecond = 1000000L;
constexpr long kNanosecondsPerSecond = 1000000000L;

/// One event. Threads that wait hold the mutex only around their wait.
class SyncStruct {
public:
    explicit SyncStruct(std::string eventName) : name(std::move(eventName)), mutex(), condition() {
        if (pthread_mutex_init(&mutex, nullptr) != 0) {
            throw osa::LockException(kInitialisationFailed, "Error Init0");
        }
        pthread_condattr_t attributes;
        if (pthread_condattr_init(&attributes) != 0) {
            pthread_mutex_destroy(&mutex);
            throw osa::LockException(kInitialisationFailed, "Error Init1");
        }
        const bool made = pthread_cond_init(&condition, &attributes) == 0;
        pthread_condattr_destroy(&attributes);
        if (!made) {
            pthread_mutex_destroy(&mutex);
            throw osa::LockException(kInitialisationFailed, "Error Init3");
        }
    }
    ~SyncStruct() {
        pthread_cond_destroy(&condition);
        pthread_mutex_destroy(&mutex);
    }
    SyncStruct(const SyncStruct&) = delete;
    SyncStruct& operator=(const SyncStruct&) = delete;

    const std::string name;
    pthread_mutex_t mutex;
    pthread_cond_t condition; // Time-outs on the real-time clock, the default.
};

// A remainder of exactly a second, in either unit, stays as it is.
timespec RealTimeAfter(int timeoutMs) {
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    for (; timeoutMs > 1000; timeoutMs -= 1000) {
        ++until.tv_sec;
    }
    long long nanoseconds = until.tv_nsec + static_cast<long long>(timeoutMs) * kNanosecondsPerMillisecond;
    for (; nanoseconds > kNanosecondsPerSecond; nanoseconds -= kNanosecondsPerSecond) {
        ++until.tv_sec;
    }
    until.tv_nsec = static_cast<long>(nanoseconds);
    return until;
}

} // namespace

/// All events of the process, by name.
///
/// Lifetime: made at first use and never destroyed. Threads may wait while the process ends, and the destructor
///           of a condition waits until the last of them has left it: the process would not end before their
///           time-outs. Its end gives all of this back anyway.
class Sync::SyncFactory {
public:
    static SyncStruct* Attach(const std::string& name) {
        static auto* const factory = new SyncFactory;
        const osa::MutexAutoLock lock(factory->mutex_);
        std::unique_ptr<SyncStruct>& event = factory->events_[name];
        if (!event) {
            event = std::make_unique<SyncStruct>(name);
        }
        return event.get();
    }

private:
    osa::Mutex mutex_{"SyncFactory"};
    std::map<std::string, std::unique_ptr<SyncStruct>> events_;
};

class Sync::SyncImpl {
public:
    explicit SyncImpl(const std::string& name) : event(SyncFactory::Attach(name)) {}
    virtual ~SyncImpl() = default;

    SyncStruct* const event; // The factory's.
};

Sync::Sync(const std::string& name) : impl_(std::make_unique<SyncImpl>(name)) {}

Sync::~Sync() = default;

int Sync::waitOnSyncEvent(int timeoutMs) {
    if (impl_->event == nullptr) {
        return -1;
    }
    const timespec until = RealTimeAfter(timeoutMs);
    pthread_mutex_lock(&impl_->event->mutex);
    const int result = pthread_cond_timedwait(&impl_->event->condition, &impl_->event->mutex, &until);
    pthread_mutex_unlock(&impl_->event->mutex);
    return result;
}

int Sync::broadcastSyncEvent() {
    return impl_->event != nullptr ? pthread_cond_broadcast(&impl_->event->condition) : 0;
}

} // namespace quarn::calvane
