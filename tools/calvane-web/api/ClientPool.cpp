#include "api/ClientPool.h"

#include <chrono>

namespace calvane_web {
namespace {

using calvane_recording::RecordingClient;
using Clock = std::chrono::steady_clock;

constexpr auto kCallTime = std::chrono::seconds(5);
/// A client that fails sooner was lost before it was asked.
constexpr auto kSoon = std::chrono::seconds(1);

} // namespace

ClientPool::ClientPool(std::size_t most, std::size_t mostOfOne)
    : LeasePool([] { return std::make_unique<Client>(kCallTime); },
                "The recorder is busy with other questions", most, mostOfOne) {}

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
