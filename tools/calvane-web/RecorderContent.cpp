#include "RecorderContent.h"

#include "api/Facts.h"
#include "api/Metrics.h"

namespace calvane_web {
namespace {

constexpr std::size_t kMostQuestions = 4;

} // namespace

RecorderContent::RecorderContent() : clients_(kMostQuestions), media_(sources_) {}

void RecorderContent::AddTo(Site& site, const ServerFacts& server) {
    const auto add = [&](const char* path, Reply (*answer)(ClientPool&, Query&)) {
        site.Add(path, [this, answer](const Request&, Query& query) { return answer(clients_, query); });
    };
    add("/api/summary", &AnswerSummary);
    add("/api/tracks", &AnswerTracks);
    add("/api/state", &AnswerState);
    add("/api/attributes", &AnswerAttributes);
    add("/api/status", &AnswerStatus);
    add("/api/coverage", &AnswerCoverage);
    add("/api/history", &AnswerHistory);
    add("/healthz", &AnswerHealth);
    site.Add("/api/events", [this](const Request&, Query& query) { return events_.Answer(query); });
    site.Add("/metrics", [this, counts = server.counts](const Request&, Query& query) {
        return AnswerMetrics(clients_, query, counts(), clients_.Failures() + sources_.Failures());
    });
    const auto addMedia = [&](const char* path, Reply (Media::*answer)(const Media::Client&, Query&)) {
        site.Add(path, [this, answer, clientOf = server.clientOf](const Request& request, Query& query) {
            return (media_.*answer)(clientOf(request), query);
        });
    };
    addMedia("/api/media", &Media::AnswerMedia);
    addMedia("/api/export", &Media::AnswerExport);
    addMedia("/api/thumbnail", &Media::AnswerThumbnail);
}

void RecorderContent::Stop() {
    media_.Stop();
    events_.Stop();
}

} // namespace calvane_web
