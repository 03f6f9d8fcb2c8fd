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
class Sync::SyncFactory {
public:
    // Threads that still wait are woken, since a condition cannot be destroyed under them.
    ~SyncFactory() {
        const osa::MutexAutoLock lock(_sSyncFactoryMutex);
        for (const auto& entry : _sSyncStructList) {
            pthread_cond_broadcast(&entry.second->condition);
            delete entry.second;
        }
        _sSyncStructList.clear();
    }

    static SyncStruct* Attach(const std::string& name) {
        const osa::MutexAutoLock lock(_sSyncFactoryMutex);
        const auto found = _sSyncStructList.find(name);
        if (found != _sSyncStructList.end()) {
            return found->second;
        }
        auto made = std::make_unique<SyncStruct>(name);
        _sSyncStructList.emplace(name, made.get());
        return made.release();
    }

private:
    static osa::Mutex _sSyncFactoryMutex;
    static std::map<std::string, SyncStruct*> _sSyncStructList;
};

class Sync::SyncImpl {
public:
    explicit SyncImpl(const std::string& name) : event(SyncFactory::Attach(name)) {}
    virtual ~SyncImpl() = default;

    SyncStruct* const event; // The factory's.

private:
    static SyncFactory _sFactory;
};

// In this order, so that the factory goes first.
osa::Mutex Sync::SyncFactory::_sSyncFactoryMutex("SyncFactory");
std::map<std::string, SyncStruct*> Sync::SyncFactory::_sSyncStructList;
Sync::SyncFactory Sync::SyncImpl::_sFactory;

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
