#pragma once

#include <cerrno>
#include <deque>
#include <string>
#include <utility>

#include "quarn/osa/Exception.h"
#include "quarn/osa/LockException.h"
#include "quarn/osa/Mutex.h"
#include "quarn/osa/MutexAutoLock.h"
#include "quarn/osa/Semaphore.h"

namespace quarn::osa {

/// A bounded first-in first-out queue that hands messages from one thread to another.
///
/// Threads:   SendMsg from any producer; TryGetMsg and GetMsg from any consumer; Size from anywhere.
/// Ownership: holds messages by value. What a message points to is not deleted with the queue.
/// Errors:    SendMsg throws Exception "Message Queue Is Full" and leaves the queue unchanged.
template <typename T>
class tMsgQueue {
public:
    /// `maxCount`: how many messages fit; 0 makes a queue that is always full. `name` is not copied.
    tMsgQueue(const char* name, unsigned short maxCount)
        : mutex_(name), semaphore_(name, 0, maxCount), maxCount_(maxCount) {}
    virtual ~tMsgQueue() = default;
    tMsgQueue(const tMsgQueue&) = delete;
    tMsgQueue& operator=(const tMsgQueue&) = delete;

    void SendMsg(const T& msg) {
        {
            const MutexAutoLock lock(mutex_);
            if (maxCount_ <= queue_.size()) {
                throw Exception("Message Queue Is Full");
            }
            queue_.push_back(msg);
        }
        semaphore_.Release();
    }

    /// Waits for at most `timeout` milliseconds (kNoTimeout: without limit); false when no message came.
    bool TryGetMsg(T& out, unsigned int timeout) {
        if (!semaphore_.TryLock(timeout)) {
            return false;
        }
        const MutexAutoLock lock(mutex_); // The semaphore has promised that there is a message.
        out = std::move(queue_.front());
        queue_.pop_front();
        return true;
    }

    /// Like TryGetMsg, but throws LockException "Lock Timeout", with its timeout flag set, when none came.
    bool GetMsg(T& out, unsigned int timeout) {
        if (!TryGetMsg(out, timeout)) {
            throw LockException(ETIMEDOUT, "Lock Timeout", true);
        }
        return true;
    }

    int Size() const {
        const MutexAutoLock lock(mutex_);
        return static_cast<int>(queue_.size());
    }

private:
    mutable Mutex mutex_;
    std::deque<T> queue_; // Oldest first.
    Semaphore semaphore_; // Counts the messages that can be taken.
    const unsigned short maxCount_;
};

} // namespace quarn::osa
