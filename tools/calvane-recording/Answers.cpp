#include "Answers.h"

#include <stdexcept>

#include "Json.h"
#include "calvane/recording/Coverage.h"
#include "record_source/RecordSource.h"

namespace calvane_recording {
namespace {

json AttributesOf(RecordingClient& client, unsigned int track, Time at) {
    if (track == static_cast<unsigned int>(TrackKind::Video)) {
        const VideoAttributes video = client.GetVideoAttributes(at);
        return {{"encoding", video.encoding}, {"width", video.width},         {"height", video.height},
                {"bitrate", video.bitrate},   {"frameRate", video.frameRate}, {"range", ToJson(video.range)}};
    }
    if (track == static_cast<unsigned int>(TrackKind::Audio)) {
        const AudioAttributes audio = client.GetAudioAttributes(at);
        return {{"bitsPerSample", audio.bitsPerSample},
                {"channels", audio.channels},
                {"samplingFrequency", audio.samplingFrequency},
                {"range", ToJson(audio.range)}};
    }
    return nullptr;
}

json SpaceAnswer(std::uint64_t used, std::uint64_t limit) {
    return {{"bytes", used}, {"limit", limit == 0 ? json(nullptr) : json(limit)}};
}

} // namespace

std::string ReasonText(unsigned int reason) {
    constexpr const auto& kReasons = quarn::calvane::kCoverageReasonNames;
    constexpr auto kUnknown = static_cast<std::size_t>(quarn::calvane::CoverageReason::Unknown);
    return kReasons.at(reason < kReasons.size() ? reason : kUnknown).text;
}

std::string NameOf(unsigned int track) {
    return track <= static_cast<unsigned int>(TrackKind::Metadata) ? NameOf(static_cast<TrackKind>(track))
                                                                   : "track " + std::to_string(track);
}

json ToJson(Time time) {
    return TimeText(time, Zone::Utc);
}

json ToJson(const Span& span) {
    return {{"first", ToJson(span.first)}, {"last", ToJson(span.last)}};
}

Span SpanFrom(const json& facts) {
    return {ParseTime(facts["first"], 0, Zone::Utc), ParseTime(facts["last"], 0, Zone::Utc)};
}

json ToJson(const Event& event) {
    json facts{{"time", ToJson(event.time)},
               {"event", event.isOfTrack ? "data" : "recording"},
               {"present", event.present}};
    if (event.isOfTrack) {
        facts["track"] = NameOf(event.track);
    }
    return facts;
}

json ToJson(const std::vector<Event>& events) {
    json all = json::array();
    for (const Event& event : events) {
        all.push_back(ToJson(event));
    }
    return all;
}

json SummaryAnswer(const Span& span) {
    return span.IsEmpty() ? json(nullptr) : ToJson(span);
}

json TracksAnswer(RecordingClient& client, const std::vector<unsigned int>& tracks) {
    json all = json::object();
    for (const unsigned int track : tracks) {
        const Span span = client.GetTrackSummary(track);
        json& facts = all[NameOf(track)] = SummaryAnswer(span);
        if (span.IsEmpty()) {
            continue;
        }
        facts["duration"] = SecondsOf(span.last - span.first);
        try {
            facts["attributes"] = AttributesOf(client, track, span.last);
        } catch (const std::exception&) {
            facts["attributes"] = nullptr; // The producer told none.
        }
    }
    return all;
}

json StateAnswer(Time at, const State& state) {
    return {{"at", ToJson(at)},
            {"recording", state.recording},
            {"video", state.video},
            {"audio", state.audio},
            {"metadata", state.metadata}};
}

json AttributesAnswer(RecordingClient& client, const std::vector<unsigned int>& tracks,
                      const std::optional<Time>& at) {
    json all = json::object();
    std::string problems;
    for (const unsigned int track : tracks) {
        try {
            json attributes = AttributesOf(client, track, at ? *at : client.GetTrackSummary(track).last);
            if (!attributes.is_null()) {
                all[NameOf(track)] = std::move(attributes);
            }
        } catch (const RecordingClient::NoAnswer&) {
            throw;
        } catch (const RecordingClient::NotRunning&) {
            throw;
        } catch (const std::exception& problem) {
            problems += (problems.empty() ? "" : "; ") + std::string(problem.what());
        }
    }
    if (all.empty()) {
        throw std::runtime_error(problems.empty() ? "Only video and audio have attributes" : problems);
    }
    return all;
}

json StatusAnswer(const Status& status) {
    json facts{{"state", status.state},
               {"problem", status.problem},
               {"retention", SecondsOf(status.limit)},
               {"space",
                {{"data", SpaceAnswer(status.usedSpace.data, status.maxSpace.data)},
                 {"history", SpaceAnswer(status.usedSpace.history, status.maxSpace.history)}}},
               {"card", {{"bytes", status.cardBytes}, {"usableBytes", status.usableBytes}}},
               {"bytesPerHour", status.bytesPerHour},
               {"fullAt", status.fullAt == 0 ? json(nullptr) : ToJson(status.fullAt)},
               {"erasesFirst", status.erasesFirst},
               {"uplink", nullptr}};
    if (const auto& uplink = status.uplink) {
        facts["uplink"] = {{"state", uplink->state},
                           {"problem", uplink->problem},
                           {"server", uplink->server},
                           {"lag", SecondsOf(uplink->lag)},
                           {"backlog", SecondsOf(uplink->backlog)},
                           {"bytesPerSecond", uplink->bytesPerSecond},
                           {"resends", uplink->resends},
                           {"gaps", uplink->gaps}};
    }
    for (const Status::Track& track : status.tracks) {
        json& of = facts["tracks"][NameOf(track.number)];
        of = {{"present", track.present},           {"records", track.records}, {"bytes", track.bytes},
              {"bytesPerHour", track.bytesPerHour}, {"refused", track.refused}, {"span", nullptr}};
        if (!track.span.IsEmpty()) {
            of["span"] = ToJson(track.span);
        }
    }
    return facts;
}

} // namespace calvane_recording
