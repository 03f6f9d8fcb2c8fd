#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

namespace quarn::calvane::testkit {

/// Values in the order in which they came.
///
/// Threads: any.
template <typename T>
class Collected {
public:
    void Add(T value) {
        const std::lock_guard<std::mutex> lock(lock_);
        values_.push_back(std::move(value));
        added_.notify_all();
    }

    /// A copy of all values so far.
    std::vector<T> Get() const {
        const std::lock_guard<std::mutex> lock(lock_);
        return values_;
    }

    /// Waits for values from other threads. False when there are fewer than `count` after 30 s, which no
    /// sound test needs.
    bool WaitFor(std::size_t count) const {
        std::unique_lock<std::mutex> lock(lock_);
        return added_.wait_for(lock, std::chrono::seconds(30),
                               [this, count] { return values_.size() >= count; });
    }

private:
    mutable std::mutex lock_;
    mutable std::condition_variable added_;
    std::vector<T> values_;
};

} // namespace quarn::calvane::testkit
