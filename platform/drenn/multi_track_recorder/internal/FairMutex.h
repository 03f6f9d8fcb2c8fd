#pragma once

#include <atomic>
#include <mutex>
#include <thread>

namespace drenn::multi_track_recorder {

/// A re-entrant mutex that goes to one that waits when its holder gives it back, even if the holder takes it again at
/// once. So a long work that gives it back now and then keeps nobody waiting for all of it.
///
/// Threads: any.
class FairMutex {
public:
    void lock() {
        const std::thread::id self = std::this_thread::get_id();
        if (holder_.load(std::memory_order_relaxed) != self) {
            const std::lock_guard<std::mutex> turn(next_);
            mutex_.lock();
            holder_.store(self, std::memory_order_relaxed);
        }
        ++depth_;
    }
    void unlock() {
        if (--depth_ == 0) {
            holder_.store(std::thread::id(), std::memory_order_relaxed);
            mutex_.unlock();
        }
    }

private:
    std::mutex next_; ///< Held by the one who waits for mutex_ and gets it next.
    std::mutex mutex_;
    std::atomic<std::thread::id> holder_{}; ///< Compared with a thread's own id, which only itself stores.
    unsigned int depth_ = 0;                ///< Guarded by mutex_.
};

} // namespace drenn::multi_track_recorder
