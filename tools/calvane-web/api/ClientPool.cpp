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

/// A client of the pool for one question.
class ClientPool::Lease {
public:
    explicit Lease(ClientPool& pool) : pool_(pool) {
        std::unique_lock<std::mutex> lock(pool_.mutex_);
        if (!pool_.returned_.wait_for(lock, kLongestWait, [this] { return pool_.used_ < pool_.most_; })) {
            throw Busy("The recorder is busy with other questions");
        }
        ++pool_.used_;
        if (!pool_.spare_.empty()) {
            client_ = std::move(pool_.spare_.back());
            pool_.spare_.pop_back();
        }
    }
    ~Lease() {
        const std::lock_guard<std::mutex> lock(pool_.mutex_);
        --pool_.used_;
        if (client_) {
            pool_.spare_.push_back(std::move(client_));
        }
        pool_.returned_.notify_one();
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    bool IsUsed() const { return client_ != nullptr; }
    Client& Get() {
        if (!client_) {
            client_ = std::make_unique<Client>(kCallTime);
        }
        return *client_;
    }
    void GiveUp() { client_.reset(); }

private:
    ClientPool& pool_;
    std::unique_ptr<Client> client_;
};

void ClientPool::Ask(const std::function<void(Client&)>& question) {
    Lease lease(*this);
    for (bool mayRetry = lease.IsUsed();; mayRetry = false) {
        const auto begin = Clock::now();
        try {
            return question(lease.Get());
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
