#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace calvane_web {

/// What is asked for is used by others already; later there may be some.
class Busy : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Who has to be asked does not answer; later he may.
class Unavailable : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Clients of a service, each used by one at a time.
///
/// Threads: any.
/// Errors:  Busy with `busy` as its text, for who has waited ten seconds.
template <class Pooled>
class LeasePool {
public:
    using Client = Pooled;
    using Make = std::function<std::unique_ptr<Client>()>;

    /// At most `most` at once, and at most `mostOfOne` of them by the same borrower.
    LeasePool(Make make, std::string busy, std::size_t most, std::size_t mostOfOne)
        : make_(std::move(make)), busy_(std::move(busy)), most_(most), mostOfOne_(mostOfOne) {}

    /// A client of the pool, until it is destroyed. An empty borrower is not counted.
    class Lease {
    public:
        explicit Lease(LeasePool& pool, std::string borrower = {})
            : pool_(&pool), borrower_(std::move(borrower)), client_(pool.Take(borrower_)) {}
        ~Lease() {
            if (pool_ != nullptr) {
                pool_->GiveBack(borrower_, std::move(client_));
            }
        }
        Lease(Lease&& other) noexcept
            : pool_(std::exchange(other.pool_, nullptr)),
              borrower_(std::move(other.borrower_)),
              client_(std::move(other.client_)) {}
        Lease& operator=(Lease&&) = delete;

        /// Makes one if there was none to spare.
        Client& operator*() {
            if (!client_) {
                client_ = pool_->make_();
            }
            return *client_;
        }
        Client* operator->() { return &**this; }
        bool IsUsed() const { return client_ != nullptr; }
        /// The pool does not get it back.
        void GiveUp() { client_.reset(); }

    private:
        LeasePool* pool_;
        std::string borrower_;
        std::unique_ptr<Client> client_;
    };

private:
    static constexpr std::chrono::seconds kLongestWait{10};

    bool IsFree(const std::string& borrower) const {
        const auto own = usedBy_.find(borrower);
        return used_ < most_ && (own == usedBy_.end() || own->second < mostOfOne_);
    }

    std::unique_ptr<Client> Take(const std::string& borrower) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!returned_.wait_for(lock, kLongestWait, [&] { return IsFree(borrower); })) {
            throw Busy(busy_);
        }
        ++used_;
        if (!borrower.empty()) {
            ++usedBy_[borrower];
        }
        if (spare_.empty()) {
            return nullptr;
        }
        auto client = std::move(spare_.back());
        spare_.pop_back();
        return client;
    }

    void GiveBack(const std::string& borrower, std::unique_ptr<Client> client) {
        const std::lock_guard<std::mutex> lock(mutex_);
        --used_;
        if (const auto own = usedBy_.find(borrower); own != usedBy_.end() && --own->second == 0) {
            usedBy_.erase(own);
        }
        if (client) {
            spare_.push_back(std::move(client));
        }
        returned_.notify_all(); // Not each of those that wait may have it.
    }

    const Make make_;
    const std::string busy_;
    const std::size_t most_;
    const std::size_t mostOfOne_;

    std::mutex mutex_;
    std::condition_variable returned_;
    std::vector<std::unique_ptr<Client>> spare_;
    std::size_t used_ = 0;
    std::map<std::string, std::size_t> usedBy_;
};

} // namespace calvane_web
