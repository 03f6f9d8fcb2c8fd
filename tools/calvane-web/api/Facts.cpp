#include "api/Facts.h"

#include <charconv>

#include "Answers.h"
#include "api/CoverageSummary.h"
#include "api/Replies.h"
#include "api/Tracks.h"
#include "record_source/RecordSource.h"

namespace calvane_web {
namespace {

using namespace calvane_recording;

constexpr std::int64_t kMostBuckets = 4000;
constexpr std::int64_t kMostEvents = 1000;
const std::vector<unsigned int> kTracks{0, 1, 2};

unsigned int TrackOf(const std::string& name) {
    return static_cast<unsigned int>(ParseTrack(name));
}

/// {"spans": [...], "isSummary": ...}
nlohmann::json CoverageOf(ClientPool::Client& client, unsigned int track, const Span& span,
                          std::int64_t buckets) {
    CoverageSummary summary(span, buckets, &ReasonText);
    client.ForEachInterval(track, span, [&summary](const Interval& interval) {
        summary.Add(interval);
        return true;
    });
    return summary.Finish();
}

/// Without a begin: from that of what is recorded.
Span TakeSpan(ClientPool& clients, Query& query) {
    const Time now = Now();
    Span span{query.TakeTime("from", "@0", now), query.TakeTime("to", "now", now)};
    if (span.first == 0) {
        const Span summary = clients.Get([](ClientPool::Client& client) { return client.GetSummary(); });
        span.first = summary.IsEmpty() ? span.last : summary.first;
        span.last = std::max(span.last, span.first); // The clock may have gone back.
    }
    RequireOrder(span);
    return span;
}

/// "1795271581000000.3": the time and how many events of it to pass.
HistoryCursor ParseToken(const std::string& token) {
    HistoryCursor cursor;
    const char* const end = token.data() + token.size();
    const auto [dot, error] = std::from_chars(token.data(), end, cursor.time);
    if (error != std::errc() || dot == end || *dot != '.' || cursor.time < 0 ||
        std::from_chars(dot + 1, end, cursor.skip).ptr != end) {
        throw std::invalid_argument("after: not a token that \"next\" had: \"" + token + "\"");
    }
    return cursor;
}

} // namespace

Reply AnswerSummary(ClientPool& clients, Query& query) {
    query.RequireAllTaken();
    return JsonReply(
        SummaryAnswer(clients.Get([](ClientPool::Client& client) { return client.GetSummary(); })));
}

Reply AnswerTracks(ClientPool& clients, Query& query) {
    query.RequireAllTaken();
    return JsonReply(clients.Get([](ClientPool::Client& client) { return TracksAnswer(client, kTracks); }));
}

Reply AnswerState(ClientPool& clients, Query& query) {
    const Time at = query.TakeTime("at", "now", Now());
    query.RequireAllTaken();
    return JsonReply(
        StateAnswer(at, clients.Get([at](ClientPool::Client& client) { return client.GetState(at); })));
}

Reply AnswerAttributes(ClientPool& clients, Query& query) {
    const auto name = query.Take("track");
    const std::vector<unsigned int> tracks = name ? std::vector<unsigned int>{TrackOf(*name)} : kTracks;
    const Time at = query.TakeTime("at", "now", Now());
    query.RequireAllTaken();
    return JsonReply(clients.Get([&](ClientPool::Client& client) {
        // The last record is as much of now as there is.
        const bool isNow = Now() - at < kSecond;
        return AttributesAnswer(client, tracks, isNow ? std::nullopt : std::optional(at));
    }));
}

Reply AnswerStatus(ClientPool& clients, Query& query) {
    query.RequireAllTaken();
    return JsonReply(
        StatusAnswer(clients.Get([](ClientPool::Client& client) { return client.GetStatus(); })));
}

Reply AnswerCoverage(ClientPool& clients, Query& query) {
    const std::set<TrackKind> tracks = TakeTracks(query, "video");
    const std::int64_t buckets = query.TakeNumber("buckets", 1, kMostBuckets, kMostBuckets);
    const Span span = TakeSpan(clients, query);
    query.RequireAllTaken();
    nlohmann::json answers = clients.Get([&](ClientPool::Client& client) {
        nlohmann::json all;
        for (const TrackKind track : tracks) {
            all[NameOf(track)] = CoverageOf(client, static_cast<unsigned int>(track), span, buckets);
        }
        return all;
    });
    return JsonReply(
        {{"from", ToJson(span.first)}, {"to", ToJson(span.last)}, {"tracks", std::move(answers)}});
}

Reply AnswerHistory(ClientPool& clients, Query& query) {
    const auto limit = static_cast<std::uint32_t>(query.TakeNumber("limit", 1, kMostEvents, kMostEvents));
    const auto token = query.Take("after");
    const std::optional<HistoryCursor> after = token ? std::optional(ParseToken(*token)) : std::nullopt;
    const Span span = TakeSpan(clients, query);
    query.RequireAllTaken();
    const HistoryPage page = clients.Get([&](ClientPool::Client& client) {
        return client.GetHistoryPage(span, after.value_or(HistoryCursor{span.first, 0}), limit);
    });
    nlohmann::json answer{{"records", ToJson(page.history.events)}, {"next", nullptr}};
    if (!after) {
        answer["state"] = ToJson(page.history.state);
    }
    if (page.more) {
        answer["next"] = std::to_string(page.next.time) + "." + std::to_string(page.next.skip);
    }
    return JsonReply(answer);
}

Reply AnswerHealth(ClientPool& clients, Query& query) {
    query.RequireAllTaken();
    Reply reply;
    reply.type = "text/plain; charset=utf-8";
    reply.headers = {{"Cache-Control", "no-store"}};
    try {
        clients.Get([](ClientPool::Client& client) { return client.GetMaximumSpace(); });
        reply.body = "ok\n";
    } catch (const std::runtime_error& problem) {
        reply.status = 503;
        reply.body = std::string(problem.what()) + "\n";
    }
    return reply;
}

} // namespace calvane_web
