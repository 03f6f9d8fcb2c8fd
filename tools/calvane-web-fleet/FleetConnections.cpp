#include "FleetConnections.h"

namespace calvane_web {
namespace {

using calvane_fleet::NatsError;

constexpr auto kAway = std::chrono::seconds(1);
constexpr const char* kNoAnswer = "The fleet's servers do not answer: ";

} // namespace

FleetConnections::FleetConnections(const calvane_fleet::NatsOptions& options, std::size_t most,
                                   std::size_t mostOfOne)
    : LeasePool([options] { return std::make_unique<Client>(options); },
                "The fleet's servers are busy with other questions", most, mostOfOne) {}

/// With the lease there is a connection then.
void FleetConnections::Connect(Lease& lease) {
    if (lease.IsUsed() && !lease->IsClosed()) {
        return;
    }
    lease.GiveUp();
    {
        const std::lock_guard<std::mutex> lock(awayMutex_);
        if (Clock::now() < awayUntil_) {
            throw Unavailable(awayReason_);
        }
    }
    try {
        *lease;
    } catch (const NatsError& problem) {
        ++failures_;
        const std::lock_guard<std::mutex> lock(awayMutex_);
        awayUntil_ = Clock::now() + kAway;
        awayReason_ = kNoAnswer + std::string(problem.what());
        throw Unavailable(awayReason_);
    }
}

void FleetConnections::Ask(const std::function<void(Client&)>& question) {
    Lease lease(*this);
    for (bool mayRetry = true;; mayRetry = false) {
        Connect(lease);
        try {
            return question(*lease);
        } catch (const NatsError& problem) {
            if (mayRetry && lease->IsClosed()) {
                continue; // It was lost, which may be noticed only now.
            }
            ++failures_;
            lease.GiveUp();
            throw Unavailable(kNoAnswer + std::string(problem.what()));
        }
    }
}

FleetConnections::Lease FleetConnections::Borrow(const std::string& borrower) {
    Lease lease(*this, borrower);
    Connect(lease);
    return lease;
}

} // namespace calvane_web
