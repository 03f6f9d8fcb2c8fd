#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "HistorySender.h"
#include "Link.h"
#include "Policy.h"
#include "TrackSender.h"
#include "UplinkStatus.h"

namespace calvane_uplink {

struct UplinkOptions {
    std::string policyFile = "/etc/calvane/uplink.ini";
    std::string metricsFile; ///< Empty: none.
};

/// Keeps the stream of this device like its card, as the policy says: connects, asks the stream where to go on, sends, and
/// begins anew when something goes wrong, with pauses that grow up to five seconds.
///
/// Threads:  Run on one; Stop and Reload from any.
/// Errors:   the constructor throws what is wrong with the policy. A policy that is changed while this runs and is wrong is
///           logged, and the old one holds.
class Uplink {
public:
    explicit Uplink(const UplinkOptions& options);
    ~Uplink();

    /// Returns after Stop.
    void Run();
    void Stop() { stopping_ = true; }
    /// Reads the policy again.
    void Reload() { reloading_ = true; }

private:
    struct Senders;
    using Topics = std::map<TrackKind, std::shared_ptr<TopicListener>>;

    bool TryLink();
    void RunLink();
    void SendAll(Link& link, Senders& senders);
    bool SendOnce(Link& link, Senders& senders);
    std::size_t TakeBudget(const Link& link, std::size_t wanted);
    void EnsureStream(calvane_fleet::NatsConnection& connection) const;
    bool TakePolicy();
    bool WaitForPolicy(std::chrono::milliseconds longest);
    void ListenToTopics();
    void Report(Link* link, const Senders* senders);
    void ReportState(const std::string& state, const std::string& problem, Link* link);
    void WriteMetrics();
    void Pause(std::chrono::milliseconds pause) const;
    std::function<bool()> Interruption() const;

    const UplinkOptions options_;
    Policy policy_;
    Topics topics_;
    std::filesystem::file_time_type policyTime_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> reloading_{false};
    LinkFigures figures_;
    std::uint64_t gaps_ = 0; // Of the links before this one.
    Status status_;
    StatusService service_;
    std::chrono::steady_clock::time_point nextReport_;
    double tokens_ = 0;         // Bytes that the rate limit allows.
    std::uint64_t counted_ = 0; // Bytes of this link that were taken from them.
    std::chrono::steady_clock::time_point tokensAt_ = std::chrono::steady_clock::now();
};

} // namespace calvane_uplink
