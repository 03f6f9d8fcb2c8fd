#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "quarn/osa/ArrivalCount.h"
#include "quarn/osa/CacheLine.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/LockException.h"
#include "quarn/osa/Mutex.h"
#include "quarn/osa/MutexAutoLock.h"
#include "quarn/osa/TimeStruct.h"

namespace quarn::osa {

/// A bounded first-in first-out queue that hands messages from one thread to another.
///
/// The two ends have nothing in common but two counts. Each end remembers what it last saw of the other and
/// looks again only when that does not suffice, so that two threads at work do not fetch the same memory from
/// each other with every message.
///
/// Threads:   SendMsg from any producer; TryGetMsg and GetMsg from any consumer; the rest from anywhere.
/// Ownership: holds messages by value. What a message points to is not deleted with the queue.
/// Errors:    SendMsg throws Exception "Message Queue Is Full" and leaves the queue unchanged.
template <typename T>
class tMsgQueue {
public:
    /// `maxCount`: how many messages fit; 0 makes a queue that is always full. `name` is not copied.
    tMsgQueue(const char* name, unsigned short maxCount)
        : maxCount_(maxCount), slotMask_(SlotsFor(maxCount) - 1), producers_(name), consumers_(name) {
        // Not value-initialised: memory behind places that are never used is never touched.
        slots_.reset(new Slot[std::size_t{slotMask_} + 1]);
    }
    virtual ~tMsgQueue() {
        for (uint32_t position = taken_; position != sent_.Get(); ++position) {
            At(position)->~T();
        }
    }
    tMsgQueue(const tMsgQueue&) = delete;
    tMsgQueue& operator=(const tMsgQueue&) = delete;

    void SendMsg(const T& msg) {
        const MutexAutoLock lock(producers_);
        const uint32_t sent = sent_.Get();
        // What was last seen is never more than what has been taken: the difference is too large, if
        // anything.
        if (sent - takenSeen_ >= maxCount_) {
            takenSeen_ = taken_.load(std::memory_order_acquire);
            if (sent - takenSeen_ >= maxCount_) {
                RaiseHighWaterMark(maxCount_);
                throw Exception("Message Queue Is Full");
            }
        }
        ::new (slots_[sent & slotMask_].place) T(msg);
        sent_.RaiseTo(sent + 1);
    }

    /// Waits for at most `timeout` milliseconds (kNoTimeout: without limit); false when no message came.
    bool TryGetMsg(T& out, unsigned int timeout) {
        if (!consumers_.TryLock(0) && !LockWithin(timeout)) {
            return false;
        }
        const Unlocker unlocker(consumers_);
        const uint32_t taken = taken_.load(std::memory_order_relaxed);
        if (taken == sentSeen_) {
            if (!sent_.WaitWhile(taken, timeout)) {
                return false;
            }
            sentSeen_ = sent_.Get();
            RaiseHighWaterMark(sentSeen_ - taken);
        }
        T* const first = At(taken);
        if constexpr (std::is_pointer_v<T>) {
            if (taken + 1 != sentSeen_) {
                __builtin_prefetch(*At(taken + 1)); // What it points to was last touched by the other thread.
            }
        }
        out = std::move(*first);
        first->~T();
        taken_.store(taken + 1, std::memory_order_release);
        return true;
    }

    /// Like TryGetMsg, but throws LockException "Lock Timeout", with its timeout flag set, when none came.
    bool GetMsg(T& out, unsigned int timeout) {
        if (!TryGetMsg(out, timeout)) {
            throw LockException(ETIMEDOUT, "Lock Timeout", true);
        }
        return true;
    }

    /// How many of the messages that had been sent when this call began are left: at most as many as fit.
    int Size() const {
        const uint32_t sent = sent_.Get(); // First, so that what comes meanwhile is not counted.
        const auto left = static_cast<int32_t>(sent - taken_.load(std::memory_order_acquire));
        return std::max(left, 0); // Below 0 when more than those have been taken meanwhile.
    }

    /// The largest number of messages that were found in the queue: by a consumer that looked for more, by a
    /// producer without room, or by this call.
    int HighWaterMark() const {
        RaiseHighWaterMark(static_cast<uint32_t>(Size()));
        return static_cast<int>(highWaterMark_.load(std::memory_order_relaxed));
    }

private:
    struct Slot {
        alignas(T) unsigned char place[sizeof(T)]; // NOLINT(bugprone-sizeof-expression): T may be a pointer.
    };

    /// Unlocks a mutex that is locked already.
    class Unlocker {
    public:
        explicit Unlocker(Mutex& mutex) : mutex_(mutex) {}
        ~Unlocker() { mutex_.Unlock(); }
        Unlocker(const Unlocker&) = delete;
        Unlocker& operator=(const Unlocker&) = delete;

    private:
        Mutex& mutex_;
    };

    static uint32_t SlotsFor(unsigned short maxCount) {
        uint32_t slots = 1;
        while (slots < maxCount) {
            slots *= 2;
        }
        return slots;
    }

    void RaiseHighWaterMark(uint32_t count) const {
        uint32_t mark = highWaterMark_.load(std::memory_order_relaxed);
        while (mark < count &&
               !highWaterMark_.compare_exchange_weak(mark, count, std::memory_order_relaxed)) {
        }
    }

    T* At(uint32_t position) {
        return std::launder(reinterpret_cast<T*>(slots_[position & slotMask_].place));
    }

    // Another consumer waits. Takes what that costs off the time that is left.
    bool LockWithin(unsigned int& timeout) {
        const TimeMonotonic start;
        if (!consumers_.TryLock(timeout)) {
            return false;
        }
        if (timeout != kNoTimeout) {
            const TimeStruct waited = TimeMonotonic() - start;
            timeout -= std::min(timeout, waited.seconds * 1000 + waited.microseconds / 1000);
        }
        return true;
    }

    const unsigned short maxCount_;
    const uint32_t slotMask_;
    std::unique_ptr<Slot[]> slots_; // A ring; the oldest message stands at taken_.

    // Inherits priority: a producer that is interrupted while it holds the lock may not keep a more urgent one.
    alignas(kCacheLineBytes) Mutex producers_;
    uint32_t takenSeen_ = 0;

    alignas(kCacheLineBytes) ArrivalCount sent_;

    alignas(kCacheLineBytes) Mutex consumers_;
    uint32_t sentSeen_ = 0;
    mutable std::atomic<uint32_t> highWaterMark_{0};

    alignas(kCacheLineBytes) std::atomic<uint32_t> taken_{0}; // Written by the consumer that has the lock.
};

} // namespace quarn::osa
