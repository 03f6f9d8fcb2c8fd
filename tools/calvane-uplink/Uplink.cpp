#include "Uplink.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <fstream>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "quarn/core/Logger.h"

namespace calvane_uplink {
namespace {

using calvane_fleet::DeviceStream;
using calvane_fleet::JetStreamError;
using calvane_fleet::NatsConnection;
using calvane_fleet::StreamState;
using Clock = std::chrono::steady_clock;
using nlohmann::json;
using std::chrono::milliseconds;

constexpr milliseconds kFirstPause{100};
constexpr milliseconds kLongestPause{5000};
constexpr milliseconds kIdlePause{50};
constexpr milliseconds kRecorderPause{1000};
constexpr milliseconds kReportEvery{500};
constexpr std::size_t kLiveBudget = std::size_t{1024} * 1024;
constexpr std::size_t kBacklogBudget = std::size_t{64} * 1024;
constexpr int kMostLooks = 20; ///< For a stream that does not change meanwhile.
constexpr std::int64_t kNanosecondsOfMicrosecond = 1000;
constexpr std::int64_t kIdWindowNanoseconds = 100'000'000;

quarn::core::Logger& Log() {
    static quarn::core::Logger& logger = *quarn::core::Logger::GetLogger("Uplink");
    return logger;
}

std::filesystem::file_time_type TimeOf(const std::string& file) {
    std::error_code ignored; // A file that is gone is told when it is read.
    return std::filesystem::last_write_time(file, ignored);
}

} // namespace

/// What sends through one link.
struct Uplink::Senders {
    Senders(NatsConnection& connection, const Policy& policy, const Topics& topics,
            const std::function<bool()>& isInterrupted)
        : stream(connection, policy.device) {
        for (const auto& [kind, track] : policy.tracks) {
            const auto topic = topics.find(kind);
            tracks.emplace_back(kind,
                                std::make_unique<TrackSender>(stream, isInterrupted, kind, track,
                                                              topic != topics.end() ? topic->second : nullptr,
                                                              policy.newestFirst));
        }
        if (policy.history) {
            history.emplace(stream, isInterrupted);
        }
    }

    /// Returns the state of the stream for which all answers hold. What an older connection has sent may still arrive, and a
    /// server that led the stream may answer before it knows that another one does.
    StreamState Resume() {
        for (int look = 0; look != kMostLooks; ++look) {
            const StreamState before = stream.GetState();
            for (const auto& each : tracks) {
                each.second->Resume();
            }
            if (history) {
                history->Resume();
            }
            StreamState after = stream.GetState();
            if (before.lastSequence == after.lastSequence && before.leader == after.leader) {
                return after;
            }
        }
        throw NatsError("The stream of " + stream.Device() +
                        " changes all the time: another uplink sends to it");
    }

    DeviceStream stream;
    std::vector<std::pair<TrackKind, std::unique_ptr<TrackSender>>> tracks;
    std::optional<HistorySender> history;
};

Uplink::Uplink(const UplinkOptions& options)
    : options_(options), policy_(options.policyFile), policyTime_(TimeOf(options.policyFile)) {}

Uplink::~Uplink() = default;

std::function<bool()> Uplink::Interruption() const {
    return [this] { return stopping_.load(); };
}

void Uplink::Run() {
    ListenToTopics();
    sd_notify(0, "READY=1");
    milliseconds pause = kFirstPause;
    while (!stopping_) {
        const std::uint64_t before = figures_.messages;
        const bool hasFailed = !TryLink();
        pause = hasFailed && figures_.messages == before ? std::min(2 * pause, kLongestPause) : kFirstPause;
        if (hasFailed && WaitForPolicy(pause)) {
            pause = kFirstPause;
        }
    }
    sd_notify(0, "STOPPING=1");
}

/// To those of the policy; what was heard of one that was there before is kept.
void Uplink::ListenToTopics() {
    Topics topics;
    for (const auto& [kind, track] : policy_.tracks) {
        if (!track.topic.empty()) {
            const auto old = topics_.find(kind);
            topics[kind] = old != topics_.end() && old->second->IsFor(track)
                               ? old->second
                               : std::make_shared<TopicListener>(track);
        }
    }
    topics_ = std::move(topics);
}

/// Whether nothing went wrong.
bool Uplink::TryLink() {
    try {
        RunLink();
    } catch (const calvane_recording::Interrupted&) {
        return true; // It is to stop.
    } catch (const std::runtime_error&
                 problem) { // Of servers, or a message in the stream that is not of the format.
        ReportState("connecting", problem.what(), nullptr);
        return false;
    }
    return true;
}

/// Until it is to stop or the policy has changed.
void Uplink::RunLink() {
    NatsConnection connection(policy_.nats);
    EnsureStream(connection);
    Senders senders(connection, policy_, topics_, Interruption());
    const StreamState state = senders.Resume();
    Link link(connection, state.lastSequence, state.mostBytes, figures_);
    counted_ = 0;
    status_.server = connection.Url();
    ReportState("sending", "", &link);
    Log().Information("Connected to %s; %s goes on behind message %llu", status_.server.c_str(),
                      policy_.device.c_str(), static_cast<unsigned long long>(state.lastSequence));
    SendAll(link, senders);
    Report(&link, &senders);
    for (const auto& each : senders.tracks) {
        gaps_ += each.second->GetFigures().gaps;
    }
}

void Uplink::SendAll(Link& link, Senders& senders) {
    while (!stopping_) {
        bool isBusy = false;
        try {
            isBusy = SendOnce(link, senders);
            if (status_.state == "waiting") {
                ReportState("sending", "", &link);
            }
        } catch (const RecorderError& problem) {
            ReportState("waiting", problem.what(), &link);
            Pause(kRecorderPause);
        }
        link.RequireAlive();
        if (Clock::now() >= nextReport_) {
            Report(&link, &senders);
            if (TakePolicy()) {
                link.WaitUntilStored();
                return;
            }
        }
        if (!isBusy) {
            std::this_thread::sleep_for(kIdlePause);
        }
    }
}

/// Whether there may be more at once.
bool Uplink::SendOnce(Link& link, Senders& senders) {
    bool isBusy = false;
    for (const auto& each : senders.tracks) {
        if (const std::size_t budget = TakeBudget(link, kLiveBudget)) {
            isBusy = each.second->SendLive(link, budget) || isBusy;
        }
    }
    for (const auto& each : senders.tracks) {
        const std::size_t budget = link.HasRoomForBacklog() ? TakeBudget(link, kBacklogBudget) : 0;
        if (budget != 0) {
            isBusy = each.second->SendBacklog(link, budget) || isBusy;
        }
    }
    if (senders.history) {
        senders.history->Send(link);
    }
    return isBusy;
}

/// How many bytes of those wanted may be sent now.
std::size_t Uplink::TakeBudget(const Link& link, std::size_t wanted) {
    const auto rate = static_cast<double>(policy_.bytesPerSecond);
    if (rate == 0) {
        return wanted;
    }
    const auto now = Clock::now();
    tokens_ = std::min(rate, tokens_ + rate * std::chrono::duration<double>(now - tokensAt_).count());
    tokensAt_ = now;
    tokens_ -= static_cast<double>(link.SentBytes() - std::exchange(counted_, link.SentBytes()));
    return tokens_ < 1 ? 0 : std::min(wanted, static_cast<std::size_t>(tokens_));
}

void Uplink::EnsureStream(NatsConnection& connection) const {
    const std::string name = calvane_fleet::StreamOf(policy_.device);
    try {
        connection.Ask("STREAM.INFO." + name);
        return;
    } catch (const JetStreamError& problem) {
        if (problem.Code() != JetStreamError::kStreamNotFound || !policy_.stream.create) {
            throw;
        }
    }
    const StreamPolicy& stream = policy_.stream;
    json config{{"name", name},
                {"subjects", {calvane_fleet::SubjectsOf(policy_.device)}},
                {"storage", "file"},
                {"retention", "limits"},
                {"discard", "old"},
                {"num_replicas", stream.replicas},
                {"max_age", stream.retention * kNanosecondsOfMicrosecond},
                {"max_bytes", stream.bytes == 0 ? -1 : static_cast<std::int64_t>(stream.bytes)},
                // Ids are conditions, and none is sent twice: servers need not remember them.
                {"duplicate_window", kIdWindowNanoseconds},
                {"allow_direct", true}};
    if (!stream.placement.empty()) {
        config["placement"] = {{"tags", {stream.placement}}};
    }
    connection.Ask("STREAM.CREATE." + name, config);
    Log().Information("Made the stream %s with %d replicas", name.c_str(), stream.replicas);
}

/// Whether it has changed.
bool Uplink::TakePolicy() {
    const auto time = TimeOf(options_.policyFile);
    if (time == policyTime_ && !reloading_.exchange(false)) {
        return false;
    }
    policyTime_ = time;
    try {
        policy_ = Policy(options_.policyFile);
        ListenToTopics();
        status_.problem.clear(); // What is still wrong is told again.
        Log().Information("Took over the policy %s", options_.policyFile.c_str());
        return true;
    } catch (const std::exception& problem) {
        Log().Error("The policy is left as it was: %s", problem.what());
        return false;
    }
}

/// Whether it has changed within that time; if so, at once.
bool Uplink::WaitForPolicy(milliseconds longest) {
    for (const auto end = Clock::now() + longest; !stopping_ && Clock::now() < end;) {
        if (TakePolicy()) {
            return true;
        }
        std::this_thread::sleep_for(kIdlePause);
    }
    return false;
}

void Uplink::Report(Link* link, const Senders* senders) {
    nextReport_ = Clock::now() + kReportEvery;
    const LinkFigures figures = link != nullptr ? link->GetFigures() : figures_;
    status_.messages = figures.messages;
    status_.bytes = figures.bytes;
    status_.resends = figures.resends;
    status_.bytesPerSecond = static_cast<std::uint64_t>(figures.bytesPerSecond);
    if (senders != nullptr) {
        status_.lag = status_.backlog = 0;
        status_.gaps = gaps_;
        for (const auto& each : senders->tracks) {
            const TrackFigures track = each.second->GetFigures();
            status_.lag = std::max<Time>(status_.lag, track.cardUpTo - track.sentUpTo);
            status_.backlog = std::max(status_.backlog, track.backlog);
            status_.gaps += track.gaps;
        }
        status_.lagBytes = static_cast<std::uint64_t>(static_cast<double>(status_.lag) /
                                                      calvane_recording::kSecond * figures.bytesPerSecond);
    }
    service_.Update(status_);
    WriteMetrics();
}

void Uplink::ReportState(const std::string& state, const std::string& problem, Link* link) {
    if (!problem.empty() && problem != status_.problem) {
        Log().Warning("%s", problem.c_str());
    }
    status_.state = state;
    status_.problem = problem;
    Report(link, nullptr);
}

/// Whole or not at all for whoever reads it.
void Uplink::WriteMetrics() {
    if (options_.metricsFile.empty()) {
        return;
    }
    const std::string temporary = options_.metricsFile + ".new";
    std::ofstream file(temporary, std::ios::trunc);
    file << ToMetrics(status_, policy_.device);
    file.close();
    std::error_code problem;
    if (file) {
        std::filesystem::rename(temporary, options_.metricsFile, problem);
    }
    if (!file || problem) {
        Log().Warning("Cannot write the metrics file %s", options_.metricsFile.c_str());
    }
}

void Uplink::Pause(milliseconds pause) const {
    for (const auto end = Clock::now() + pause; !stopping_ && Clock::now() < end;) {
        std::this_thread::sleep_for(kIdlePause);
    }
}

} // namespace calvane_uplink
