#include "api/ClientPool.h"

#include <chrono>
#include <utility>

namespace calvane_web {
namespace {

using calvane_recording::RecordingClient;
using Clock = std::chrono::steady_clock;

constexpr auto kCallTime = std::chrono::seconds(5);
constexpr auto kLongestWait = std::chrono::seconds(10);
/// A client that fails sooner was lost before it was asked.
constexpr auto kSoon = std::chrono::seconds(1);

} // namespace

bool ClientPool::IsFree(const std::string& borrower) const {
    const auto own = usedBy_.find(borrower);
    return used_ < most_ && (own == usedBy_.end() || own->second < mostOfOne_);
}

ClientPool::Lease::Lease(ClientPool& pool, std::string borrower)
    : pool_(&pool), borrower_(std::move(borrower)) {
    std::unique_lock<std::mutex> lock(pool.mutex_);
    if (!pool.returned_.wait_for(lock, kLongestWait, [&] { return pool.IsFree(borrower_); })) {
        throw Busy("The recorder is busy with other questions");
    }
    ++pool.used_;
    if (!borrower_.empty()) {
        ++pool.usedBy_[borrower_];
    }
    if (!pool.spare_.empty()) {
        client_ = std::move(pool.spare_.back());
        pool.spare_.pop_back();
    }
}

ClientPool::Lease::~Lease() {
    if (pool_ == nullptr) {
        return;
    }
    const std::lock_guard<std::mutex> lock(pool_->mutex_);
    --pool_->used_;
    if (const auto own = pool_->usedBy_.find(borrower_); own != pool_->usedBy_.end() && --own->second == 0) {
        pool_->usedBy_.erase(own);
    }
    if (client_) {
        pool_->spare_.push_back(std::move(client_));
    }
    pool_->returned_.notify_all(); // Not each of those that wait may have it.
}

ClientPool::Client& ClientPool::Lease::operator*() {
    if (!client_) {
        client_ = std::make_unique<Client>(kCallTime);
    }
    return *client_;
}

void ClientPool::Ask(const std::function<void(Client&)>& question) {
    Lease lease(*this);
    Ask(lease, question);
}

ClientPool::Lease ClientPool::Borrow(const std::string& borrower) {
    Lease lease(*this, borrower);
    Ask(lease, [](Client& client) { client.GetSummary(); });
    return lease;
}

void ClientPool::Ask(Lease& lease, const std::function<void(Client&)>& question) {
    for (bool mayRetry = lease.IsUsed();; mayRetry = false) {
        const auto begin = Clock::now();
        try {
            return question(*lease);
        } catch (const RecordingClient::NotRunning&) {
            ++failures_;
            lease.GiveUp();
            throw;
        } catch (const RecordingClient::NoAnswer&) {
            lease.GiveUp();
            if (!mayRetry || Clock::now() - begin > kSoon) {
                ++failures_;
                throw;
            }
        }
    }
}

} // namespace calvane_web
