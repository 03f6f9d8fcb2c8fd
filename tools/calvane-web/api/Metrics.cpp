#include "api/Metrics.h"

#include <array>
#include <string>

#include "Answers.h"

namespace calvane_web {
namespace {

using calvane_recording::kSecond;
using calvane_recording::Status;

std::string SecondsText(calvane_recording::Time time) {
    return std::to_string(time / kSecond) + "." + std::to_string(kSecond + time % kSecond).substr(1);
}

void AddTracks(Exposition& metrics, const Status& status) {
    struct Family {
        const char* name;
        const char* type;
        const char* help;
        std::uint64_t (*of)(const Status::Track&);
    };
    constexpr std::array<Family, 5> kFamilies{
        {{"track_present", "gauge", "Whether data comes.",
          [](const Status::Track& track) { return std::uint64_t{track.present}; }},
         {"track_records_total", "counter", "Records written since the recorder was started.",
          [](const Status::Track& track) { return track.records; }},
         {"track_bytes_total", "counter", "Bytes written since the recorder was started.",
          [](const Status::Track& track) { return track.bytes; }},
         {"track_dropped_records_total", "counter", "Records refused since the recorder was started.",
          [](const Status::Track& track) { return track.refused; }},
         {"track_bytes_per_hour", "gauge", "Growth by the last minute.",
          [](const Status::Track& track) { return track.bytesPerHour; }}}};
    const auto labels = [](const Status::Track& track) {
        return "{track=\"" + calvane_recording::NameOf(track.number) + "\"}";
    };
    for (const Family& family : kFamilies) {
        metrics.Begin(family.name, family.type, family.help);
        for (const Status::Track& track : status.tracks) {
            metrics.Add(std::to_string(family.of(track)), labels(track));
        }
    }
    metrics.Begin("track_last_record_timestamp_seconds", "gauge", "Time of the last record.");
    for (const Status::Track& track : status.tracks) {
        if (!track.span.IsEmpty()) {
            metrics.Add(SecondsText(track.span.last), labels(track));
        }
    }
}

void AddStatus(Exposition& metrics, const Status& status) {
    metrics.Begin("recorder_state", "gauge", "1 for the state that the recorder is in.");
    for (const char* const state : {"recording", "waiting", "read-only", "card-away", "disabled"}) {
        metrics.Add(status.state == state ? "1" : "0", std::string("{state=\"") + state + "\"}");
    }
    metrics.AddOne("store_problem", "gauge",
                   "Whether the recorder reports a problem of the card or the store.",
                   status.problem.empty() ? 0 : 1);
    metrics.AddOne("card_bytes", "gauge", "Size of the card's file system.", status.cardBytes);
    metrics.AddOne("card_usable_bytes", "gauge",
                   "Bytes that can be written before the oldest data is erased.", status.usableBytes);
    metrics.AddOne("data_bytes", "gauge", "Bytes taken by video, audio and metadata.", status.usedSpace.data);
    metrics.AddOne("history_bytes", "gauge", "Bytes taken by the history.", status.usedSpace.history);
    if (status.fullAt != 0) {
        metrics.Begin("full_timestamp_seconds", "gauge", "When there will be no room at this rate.");
        metrics.Add(SecondsText(status.fullAt));
    }
    AddTracks(metrics, status);
}

} // namespace

Reply AnswerMetrics(ClientPool& clients, Query& query, const ServerCounts& counts, std::uint64_t busErrors) {
    query.RequireAllTaken();
    Exposition metrics;
    std::uint64_t isUp = 1;
    try {
        AddStatus(metrics, clients.Get([](ClientPool::Client& client) { return client.GetStatus(); }));
    } catch (const std::runtime_error&) {
        isUp = 0; // That is what is to be told.
    }
    metrics.AddOne("recorder_up", "gauge", "Whether the recorder answers.", isUp);
    metrics.AddOne("bus_errors_total", "counter", "Questions that the recorder did not answer.", busErrors);
    metrics.AddServer(counts);
    return std::move(metrics).Answer();
}

} // namespace calvane_web
