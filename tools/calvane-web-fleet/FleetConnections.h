#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "api/LeasePool.h"
#include "fleet/Nats.h"

namespace calvane_web {

/// Connections to the fleet's servers, each used by one at a time.
///
/// One that was lost is replaced by the next question, through whichever server answers. While none does, everybody is told so
/// at once, and one tries again each second.
///
/// Threads: any.
/// Errors:  Busy; Unavailable with the reason when no server answers.
class FleetConnections : public LeasePool<calvane_fleet::NatsConnection> {
public:
    FleetConnections(const calvane_fleet::NatsOptions& options, std::size_t most,
                     std::size_t mostOfOne = SIZE_MAX);

    /// May ask twice, if the connection was lost meanwhile.
    void Ask(const std::function<void(Client&)>& question);
    /// A connection for several questions.
    Lease Borrow(const std::string& borrower);

    std::uint64_t Failures() const { return failures_; }

private:
    using Clock = std::chrono::steady_clock;

    void Connect(Lease& lease);

    std::atomic<std::uint64_t> failures_{0};

    std::mutex awayMutex_;
    Clock::time_point awayUntil_;
    std::string awayReason_;
};

} // namespace calvane_web
