#include "FleetContent.h"

#include <algorithm>
#include <cctype>
#include <optional>

#include "Answers.h"
#include "Json.h"
#include "api/CoverageSummary.h"
#include "api/Exposition.h"
#include "api/Replies.h"
#include "fleet/ReasonText.h"

namespace calvane_web {
namespace {

using namespace calvane_recording;

constexpr std::size_t kMostQuestions = 4;
constexpr std::size_t kMostDevices = 50; ///< In a question.
constexpr std::int64_t kMostNames = 1000;
constexpr std::int64_t kMostBuckets = 4000;
constexpr std::int64_t kMostEvents = 1000;

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char each) { return static_cast<char>(std::tolower(each)); });
    return text;
}

/// The parameter "devices": names with commas.
std::vector<std::string> TakeDevices(Query& query) {
    const std::string text = query.TakeOr("devices", "");
    if (text.empty()) {
        throw std::invalid_argument("The parameter \"devices\" is missing");
    }
    std::vector<std::string> devices;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        devices.push_back(text.substr(begin, end - begin));
        RequireDeviceName("devices", devices.back());
        begin = end + 1;
    }
    if (devices.size() > kMostDevices) {
        throw std::invalid_argument("devices: more than " + std::to_string(kMostDevices));
    }
    return devices;
}

Span TakeSpan(Query& query) {
    const Time now = Now();
    const Span span{query.TakeTime("from", "-1d", now), query.TakeTime("to", "now", now)};
    RequireOrder(span);
    return span;
}

nlohmann::json CoverageOf(const DeviceCoverage& coverage, const Span& span, std::int64_t buckets) {
    if (!coverage.problem.empty()) {
        return {{"error", coverage.problem}};
    }
    CoverageSummary summary(span, buckets, &calvane_fleet::ReasonText);
    for (const Interval& interval : coverage.intervals) {
        // The end of a stretch is the begin of the next one.
        if (interval.span.last > span.first && interval.span.first < std::max(span.last, span.first + 1)) {
            summary.Add(interval);
        }
    }
    nlohmann::json facts = summary.Finish();
    const bool hasAny = !coverage.span.IsEmpty();
    facts["recorded"] = hasAny ? ToJson(coverage.span) : nlohmann::json(nullptr);
    facts["lag"] = hasAny ? nlohmann::json(SecondsOf(Now() - coverage.span.last)) : nlohmann::json(nullptr);
    facts["bytes"] = coverage.bytes;
    return facts;
}

/// The newest ones of a time.
nlohmann::json HistoryOf(const DeviceHistory& history, const Span& span, std::size_t limit) {
    if (!history.problem.empty()) {
        return {{"error", history.problem}};
    }
    std::vector<Event> events;
    std::copy_if(history.events.begin(), history.events.end(), std::back_inserter(events),
                 [&span](const Event& event) { return event.time >= span.first && event.time <= span.last; });
    const std::size_t left = events.size() > limit ? events.size() - limit : 0;
    events.erase(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(left));
    return {{"events", ToJson(events)}, {"omitted", left}};
}

} // namespace

FleetContent::FleetContent(const calvane_fleet::NatsOptions& options)
    : connections_(options, kMostQuestions), knowledge_(connections_), sources_(options), media_(sources_) {}

void FleetContent::AddTo(Site& site, const ServerFacts& server) {
    // What is asked for media asks the servers, too.
    const auto add = [&site](const char* path, const Site::Answer& answer) {
        site.Add(path, [answer](const Request& request, Query& query) {
            try {
                return answer(request, query);
            } catch (const calvane_fleet::NatsError& problem) {
                throw Unavailable(std::string("The fleet's servers do not answer: ") + problem.what());
            }
        });
    };
    const auto addFacts = [&](const char* path, Reply (FleetContent::*answer)(Query&)) {
        add(path, [this, answer](const Request&, Query& query) { return (this->*answer)(query); });
    };
    addFacts("/api/fleet/devices", &FleetContent::AnswerDevices);
    addFacts("/api/fleet/coverage", &FleetContent::AnswerCoverage);
    addFacts("/api/fleet/history", &FleetContent::AnswerHistory);
    addFacts("/healthz", &FleetContent::AnswerHealth);
    add("/metrics", [this, counts = server.counts](const Request&, Query& query) {
        return AnswerMetrics(query, counts());
    });
    const auto addMedia = [&](const char* path, Reply (Media::*answer)(const Media::Client&, Query&)) {
        add(path, [this, answer, clientOf = server.clientOf](const Request& request, Query& query) {
            return (media_.*answer)(clientOf(request), query);
        });
    };
    addMedia("/api/fleet/media", &Media::AnswerMedia);
    addMedia("/api/fleet/export", &Media::AnswerExport);
    addMedia("/api/fleet/thumbnail", &Media::AnswerThumbnail);
}

Reply FleetContent::AnswerDevices(Query& query) {
    const std::string search = Lower(query.TakeOr("search", ""));
    const auto offset = static_cast<std::size_t>(query.TakeNumber("offset", 0, 1'000'000, 0));
    const auto limit = static_cast<std::size_t>(query.TakeNumber("limit", 1, kMostNames, kMostNames));
    query.RequireAllTaken();
    nlohmann::json page = nlohmann::json::array();
    std::size_t total = 0;
    for (const std::string& name : *knowledge_.GetDevices()) {
        if (Lower(name).find(search) == std::string::npos) {
            continue;
        }
        if (total >= offset && page.size() < limit) {
            page.push_back(name);
        }
        ++total;
    }
    return JsonReply({{"devices", std::move(page)}, {"total", total}});
}

Reply FleetContent::AnswerCoverage(Query& query) {
    const std::vector<std::string> devices = TakeDevices(query);
    const TrackKind track = ParseTrack(query.TakeOr("track", "video"));
    const std::int64_t buckets = query.TakeNumber("buckets", 1, kMostBuckets, kMostBuckets);
    const Span span = TakeSpan(query);
    query.RequireAllTaken();
    nlohmann::json answers;
    for (const std::string& device : devices) {
        answers[device] = CoverageOf(*knowledge_.GetCoverage(device, track), span, buckets);
    }
    return JsonReply(
        {{"from", ToJson(span.first)}, {"to", ToJson(span.last)}, {"devices", std::move(answers)}});
}

Reply FleetContent::AnswerHistory(Query& query) {
    const std::vector<std::string> devices = TakeDevices(query);
    const auto limit = static_cast<std::size_t>(query.TakeNumber("limit", 1, kMostEvents, kMostEvents));
    const Span span = TakeSpan(query);
    query.RequireAllTaken();
    nlohmann::json answers;
    for (const std::string& device : devices) {
        answers[device] = HistoryOf(*knowledge_.GetHistory(device), span, limit);
    }
    return JsonReply({{"devices", std::move(answers)}});
}

Reply FleetContent::AnswerHealth(Query& query) {
    query.RequireAllTaken();
    Reply reply;
    reply.type = "text/plain; charset=utf-8";
    reply.headers = {{"Cache-Control", "no-store"}};
    try {
        connections_.Ask([](calvane_fleet::NatsConnection& connection) { connection.Ask("INFO"); });
        reply.body = "ok\n";
    } catch (const std::runtime_error& problem) {
        reply.status = 503;
        reply.body = std::string(problem.what()) + "\n";
    }
    return reply;
}

Reply FleetContent::AnswerMetrics(Query& query, const ServerCounts& counts) {
    query.RequireAllTaken();
    Exposition metrics;
    metrics.AddOne("fleet_errors_total", "counter", "Questions that the fleet's servers did not answer.",
                   connections_.Failures() + sources_.Failures());
    metrics.AddOne("fleet_cache_bytes", "gauge", "Bytes of answers that are kept for a while.",
                   knowledge_.Weight());
    metrics.AddServer(counts);
    return std::move(metrics).Answer();
}

} // namespace calvane_web
