#include "FleetCommands.h"

#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "Answers.h"
#include "calvane/recording/RecordingManager.h"
#include "fleet/DeviceList.h"
#include "fleet/FleetSource.h"
#include "fleet/ReasonText.h"

namespace calvane_fleet {
namespace {

using calvane_recording::DurationText;
using calvane_recording::Event;
using calvane_recording::ParseSpan;
using calvane_recording::TimeText;
using nlohmann::json;

constexpr auto kTick = std::chrono::milliseconds(100);

std::vector<TrackKind> TracksOf(const FleetRun& run) {
    std::vector<TrackKind> tracks;
    for (const std::string& name : run.tracks) {
        tracks.push_back(calvane_recording::ParseTrack(name));
    }
    return tracks.empty() ? std::vector<TrackKind>{TrackKind::Video, TrackKind::Audio, TrackKind::Metadata}
                          : tracks;
}

/// The connection and the stream of the device that the command line names.
struct OpenDevice {
    explicit OpenDevice(const FleetRun& run)
        : connection(run.nats), stream(connection, run.device), source(stream) {
        RequireDevice(connection, run.device);
    }

    NatsConnection connection;
    DeviceStream stream;
    FleetSource source;
};

std::string SpanText(const Span& span, const FleetRun& run) {
    return TimeText(span.first, run.zone) + " to " + TimeText(span.last, run.zone) + " (" +
           DurationText(span.last - span.first) + ")";
}

std::string CodecOf(const std::string& info) {
    calvane_recording::InfoMap map;
    quarn::calvane::RecordingManager::deserializeTrackInfo(info, map);
    return map["Codec"];
}

std::string EventText(const Event& event) {
    return (event.isOfTrack ? calvane_recording::NameOf(event.track) : std::string("recording")) +
           (event.present ? " begins" : " ends");
}

} // namespace

void PrintDevices(const FleetRun& run) {
    NatsConnection connection(run.nats);
    json list = json::array();
    for (const Device& device : ListDevices(connection)) {
        if (run.json) {
            list.push_back({{"device", device.name},
                            {"messages", device.messages},
                            {"bytes", device.bytes},
                            {"lastStored", device.lastStored}});
        } else {
            std::cout << device.name << "  " << device.bytes << " bytes, " << device.messages
                      << " messages, last " << device.lastStored << "\n";
        }
    }
    if (run.json) {
        std::cout << list.dump(2) << "\n";
    }
}

void PrintTracks(const FleetRun& run) {
    OpenDevice device(run);
    json all = json::object();
    for (const TrackKind track : TracksOf(run)) {
        const Span span = device.source.GetSpan(track);
        const std::string name = NameOf(track);
        if (span.IsEmpty()) {
            all[name] = nullptr;
            continue;
        }
        const std::uint64_t records = device.source.GetRecords(track);
        const std::string codec = CodecOf(device.source.GetInfo(track));
        all[name] = calvane_recording::ToJson(span);
        all[name]["records"] = records;
        all[name]["codec"] = codec;
        all[name]["lanes"] = device.source.GetLanes(track).size();
        if (!run.json) {
            std::cout << name << "  " << SpanText(span, run) << ", " << records << " records"
                      << (codec.empty() ? "" : ", " + codec) << "\n";
        }
    }
    if (run.json) {
        std::cout << all.dump(2) << "\n";
    }
}

void PrintCoverage(const FleetRun& run) {
    OpenDevice device(run);
    const Span span = ParseSpan(run.from, run.to, run.zone);
    json all = json::object();
    for (const TrackKind track : TracksOf(run)) {
        const std::string name = NameOf(track);
        json list = json::array();
        for (const Interval& interval : device.source.GetCoverage(track, span)) {
            json facts = calvane_recording::ToJson(interval.span);
            facts["reason"] = ReasonText(interval.reason);
            list.push_back(facts);
            if (!run.json) {
                std::cout << name << "  " << SpanText(interval.span, run) << "  "
                          << ReasonText(interval.reason) << "\n";
            }
        }
        all[name] = list;
    }
    if (run.json) {
        std::cout << all.dump(2) << "\n";
    }
}

void PrintHistory(const FleetRun& run) {
    OpenDevice device(run);
    const std::vector<Event> events = device.source.GetHistory(ParseSpan(run.from, run.to, run.zone));
    if (run.json) {
        std::cout << calvane_recording::ToJson(events).dump(2) << "\n";
        return;
    }
    for (const Event& event : events) {
        std::cout << TimeText(event.time, run.zone) << "  " << EventText(event) << "\n";
    }
}

/// What streams take is seen as it comes, before they have it.
void Watch(const FleetRun& run) {
    NatsConnection connection(run.nats);
    const std::string device = run.device.empty() ? "*" : run.device;
    std::mutex lock;
    const auto print = [&](natsMsg& message) {
        const char* text = nullptr;
        if (natsMsgHeader_Get(&message, kHeaderName, &text) == NATS_OK) {
            const std::lock_guard<std::mutex> guard(lock);
            const MessageHead head = ParseHead(text);
            std::cout << TimeText(head.time, run.zone) << "  " << natsMsg_GetSubject(&message) << "  " << text
                      << std::endl;
        }
    };
    connection.Subscribe("calvane." + device + ".history.*", print);
    connection.Subscribe("calvane." + device + ".*.gaps", print);
    connection.Subscribe("calvane." + device + ".*.info", print);
    while (!run.isInterrupted) {
        if (connection.IsClosed()) {
            throw NatsError("The connection was lost");
        }
        std::this_thread::sleep_for(kTick);
    }
}

} // namespace calvane_fleet
