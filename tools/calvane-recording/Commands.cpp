#include "Commands.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Answers.h"
#include "Json.h"
#include "RecordReader.h"
#include "RecordingClient.h"
#include "Timeline.h"
#include "record_source/ServiceSource.h"

namespace calvane_recording {
namespace {

constexpr auto kFollowPeriod = std::chrono::milliseconds(500);

unsigned int TrackOf(const std::string& name) {
    return static_cast<unsigned int>(ParseTrack(name));
}

/// The tracks that are asked for.
std::vector<unsigned int> TracksOf(const Options& options) {
    if (options.track.empty()) {
        return {0, 1, 2};
    }
    return {TrackOf(options.track)};
}

/// From begin to now, unless the options say otherwise.
Span SpanOf(const Options& options) {
    return ParseSpan(options.from, options.to, options.zone);
}

std::string ToText(const Span& span, const Options& options) {
    return TimeText(span.first, options.zone) + " to " + TimeText(span.last, options.zone) + " (" +
           DurationText(span.last - span.first) + ")";
}

/// One line for a program that reads on.
void PrintLine(const json& facts) {
    std::cout << facts.dump() << std::endl;
}

std::string ToText(const Event& event, const Options& options) {
    const std::string what = event.isOfTrack ? NameOf(event.track) + " data " : "recording ";
    const char* const change =
        event.isOfTrack ? (event.present ? "present" : "absent") : (event.present ? "started" : "stopped");
    return TimeText(event.time, options.zone) + "  " + what + change;
}

std::string AttributesText(const json& attributes) {
    std::string text;
    for (const auto& [name, value] : attributes.items()) {
        if (name != "range") {
            text += (text.empty() ? "" : ", ") + name + " " + value.dump();
        }
    }
    return text;
}

/// How far a history has been printed: up to this time, and so many events of exactly this time.
struct Shown {
    Time last = 0;
    std::size_t count = 0;
};

void Note(Shown& shown, Time time) {
    shown = {time, time == shown.last ? shown.count + 1 : 1};
}

void FollowHistory(RecordingClient& client, const Options& options, Shown& shown) {
    const Shown before = shown;
    std::size_t passed = 0;
    for (const Event& event : client.GetHistory({before.last, std::max(Now(), before.last)}).events) {
        if (event.time == before.last && passed < before.count) {
            ++passed;
            continue;
        }
        if (options.json) {
            PrintLine(ToJson(event));
        } else {
            std::cout << ToText(event, options) << std::endl;
        }
        Note(shown, event.time);
    }
}

std::string ForecastText(const Status& status, const Options& options) {
    if (status.erasesFirst == "age") {
        return "the card is large enough; what is older than " + DurationText(status.limit) + " is erased";
    }
    if (status.fullAt == 0) {
        return "the card does not get full";
    }
    if (status.erasesFirst == "space-limit") {
        return "the limit of space is reached at " + TimeText(status.fullAt, options.zone) +
               "; then the oldest data is erased";
    }
    return status.usableBytes == 0
               ? "the card is full; the oldest data is erased for new data"
               : "full at " + TimeText(status.fullAt, options.zone) + "; then the oldest data is erased";
}

void ListFrame(const Frame& frame, const Options& options) {
    if (options.json) {
        PrintLine({{"time", ToJson(frame.time)},
                   {"bytes", frame.payload.size()},
                   {"keyFrame", (frame.flags & 1) != 0},
                   {"discontinuity", (frame.flags & 2) != 0},
                   {"afterDamage", (frame.flags & 4) != 0}});
    } else {
        std::cout << TimeText(frame.time, options.zone) << "  " << frame.payload.size() << " bytes"
                  << ((frame.flags & 1) != 0 ? "  key frame" : "")
                  << ((frame.flags & 4) != 0   ? "  after damaged records"
                      : (frame.flags & 2) != 0 ? "  after a gap"
                                               : "")
                  << "\n";
    }
}

Span SpanToRead(RecordingClient& client, const Options& options) {
    Span span = SpanOf(options);
    if (options.fromKey) {
        ServiceSource source(client, nullptr);
        const auto key =
            FindKeyFrameShownAt(source, static_cast<TrackKind>(TrackOf(options.track)), span.first);
        span.first = key ? key->time : span.first;
    }
    return span;
}

} // namespace

void PrintSummary(RecordingClient& client, const Options& options) {
    const Span span = client.GetSummary();
    if (options.json) {
        Print(SummaryAnswer(span));
    } else {
        std::cout << (span.IsEmpty() ? "Nothing is recorded" : "Recorded from " + ToText(span, options))
                  << "\n";
    }
}

void PrintTracks(RecordingClient& client, const Options& options) {
    const std::vector<unsigned int> tracks = TracksOf(options);
    const json all = TracksAnswer(client, tracks);
    if (options.json) {
        Print(all);
        return;
    }
    for (const unsigned int track : tracks) {
        const json& facts = all[NameOf(track)];
        std::string text = "nothing is recorded";
        if (!facts.is_null()) {
            text = ToText(SpanFrom(facts), options) +
                   (facts["attributes"].is_null() ? "" : "  " + AttributesText(facts["attributes"]));
        }
        std::printf("%-9s %s\n", NameOf(track).c_str(), text.c_str());
    }
    std::fflush(stdout);
}

void PrintHistory(RecordingClient& client, const Options& options) {
    const Span span = SpanOf(options);
    const History history = client.GetHistory(span);
    if (options.json && !options.follow) {
        Print({{"state", ToJson(history.state)}, {"events", ToJson(history.events)}});
        return;
    }
    for (const Event& event : history.state) {
        if (options.json) {
            json facts = ToJson(event);
            facts["before"] = true;
            PrintLine(facts);
        } else {
            std::cout << ToText(event, options) << "  (before)\n";
        }
    }
    Shown shown{span.first, 0}; // Events are written a while after their time.
    for (const Event& event : history.events) {
        if (options.json) {
            PrintLine(ToJson(event));
        } else {
            std::cout << ToText(event, options) << "\n";
        }
        Note(shown, event.time);
    }
    std::cout << std::flush;
    while (options.follow && std::cout) {
        std::this_thread::sleep_for(kFollowPeriod);
        FollowHistory(client, options, shown);
    }
}

void PrintState(RecordingClient& client, const Options& options) {
    const Time at = ParseTime(options.at, Now(), options.zone);
    const State state = client.GetState(at);
    if (options.json) {
        Print(StateAnswer(at, state));
        return;
    }
    const auto word = [](bool there) { return there ? "yes" : "no"; };
    std::cout << "At " << TimeText(at, options.zone) << "\n  recording " << word(state.recording)
              << "\n  video     " << word(state.video) << "\n  audio     " << word(state.audio)
              << "\n  metadata  " << word(state.metadata) << "\n";
}

void PrintCoverage(RecordingClient& client, const Options& options) {
    Span span = SpanOf(options);
    if (span.first == 0) { // Nothing is known of 1970.
        const Span summary = client.GetSummary();
        span.first = summary.IsEmpty() ? span.last : summary.first;
        span.last = std::max(span.last, span.first); // Unless the clock went back.
    }
    json all = json::object();
    for (const unsigned int track : TracksOf(options)) {
        const auto intervals = client.GetCoverage(track, span);
        if (!options.json) {
            std::printf("%-9s |%s|\n", NameOf(track).c_str(), Timeline(intervals, span).c_str());
        }
        json list = json::array();
        for (const Interval& interval : intervals) {
            json facts = ToJson(interval.span);
            facts["reason"] = ReasonText(interval.reason);
            list.push_back(facts);
            if (!options.json) {
                std::printf("          %s  %s\n", ToText(interval.span, options).c_str(),
                            ReasonText(interval.reason).c_str());
            }
        }
        all[NameOf(track)] = list;
    }
    std::fflush(stdout);
    if (options.json) {
        Print(all);
    }
}

void PrintAttributes(RecordingClient& client, const Options& options) {
    // The last record is as much of now as there is.
    const std::optional<Time> at =
        options.at == "now" ? std::nullopt : std::optional(ParseTime(options.at, Now(), options.zone));
    const json all = AttributesAnswer(client, TracksOf(options), at);
    if (options.json) {
        Print(all);
        return;
    }
    for (const auto& [track, attributes] : all.items()) {
        const Span range = SpanFrom(attributes["range"]);
        std::cout << track << ": " << AttributesText(attributes) << "\n  from "
                  << TimeText(range.first, options.zone) << " to " << TimeText(range.last, options.zone)
                  << "\n";
    }
}

void ReadRecords(RecordingClient& client, const Options& options) {
    if (options.json && !options.list) {
        throw std::invalid_argument("Contents cannot be printed as JSON: --json needs --list");
    }
    if (!options.list && isatty(STDOUT_FILENO) == 1) {
        throw std::invalid_argument("Standard output is a terminal: redirect it to a file, or use --list");
    }
    RecordReader reader(client.OpenRecords(TrackOf(options.track), SpanToRead(client, options)));
    unsigned int gaps = 0;
    bool isAhead = options.fromKey; // Of the first key frame; others may have its time.
    Frame frame = reader.Read();
    for (; frame.kind != Frame::kEnd; frame = reader.Read()) {
        switch (frame.kind) {
            case Frame::kErased:
                ++gaps;
                std::cerr << "calvane-recording: "
                          << (frame.time == 0 ? "the first of the data"
                                              : "data after " + TimeText(frame.time, options.zone))
                          << " was erased while it was read\n";
                break;
            case Frame::kFailed:
                throw std::runtime_error("The recorder could not read on: " +
                                         std::string(frame.payload.begin(), frame.payload.end()));
            case Frame::kInfo:
                break;
            default:
                isAhead = isAhead && (frame.kind != Frame::kRecord || (frame.flags & 1) == 0);
                if (isAhead) {
                    break;
                }
                if (options.list) {
                    ListFrame(frame, options);
                } else {
                    std::cout.write(frame.payload.data(), static_cast<std::streamsize>(frame.payload.size()));
                }
        }
        if (!std::cout) {
            throw std::runtime_error("Cannot write the records");
        }
    }
    std::cout << std::flush;
    if (frame.unreadable != 0) {
        throw std::runtime_error(std::to_string(frame.unreadable) +
                                 " records are damaged on the card and were left out");
    }
    if (gaps != 0) {
        throw std::runtime_error("Not all of the data was there any more");
    }
}

void Watch(RecordingClient& client, const Options& options) {
    const auto print = [&options](json facts, const std::string& text) {
        const Time now = Now();
        if (options.json) {
            facts["time"] = ToJson(now);
            PrintLine(facts);
        } else {
            std::cout << TimeText(now, options.zone) << "  " << text << std::endl;
        }
    };
    client.Watch(
        [&](unsigned int track, bool present) {
            print({{"event", "dataPresent"}, {"track", NameOf(track)}, {"present", present}},
                  NameOf(track) + (present ? " data present" : " data absent"));
        },
        [&](unsigned int track, const Span& span) {
            print({{"event", "dataDeleted"}, {"track", NameOf(track)}, {"span", ToJson(span)}},
                  NameOf(track) + " data deleted: " + ToText(span, options));
        });
}

std::string BytesText(std::uint64_t bytes) {
    constexpr std::array<const char*, 6> kUnits{"B", "kB", "MB", "GB", "TB", "PB"};
    auto number = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; number >= 999.5 && unit + 1 != kUnits.size(); ++unit) {
        number /= 1000;
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3g %s", number, kUnits[unit]);
    return text.data();
}

namespace {

std::string SpaceText(std::uint64_t used, std::uint64_t limit) {
    return BytesText(used) + (limit == 0 ? "" : " (at most " + BytesText(limit) + ")");
}

} // namespace

void PrintStatus(RecordingClient& client, const Options& options) {
    const Status status = client.GetStatus();
    if (options.json) {
        Print(StatusAnswer(status));
        return;
    }
    std::cout << "State      " << status.state << (status.problem.empty() ? "" : ": " + status.problem)
              << "\n"
              << "Card       " << BytesText(status.usableBytes) << " to be written of "
              << BytesText(status.cardBytes) << "\n"
              << "Taken      " << SpaceText(status.usedSpace.data, status.maxSpace.data) << " by data, "
              << SpaceText(status.usedSpace.history, status.maxSpace.history) << " by the history\n"
              << "Growth     " << BytesText(status.bytesPerHour) << " an hour\n"
              << "Forecast   " << ForecastText(status, options) << "\n";
    for (const Status::Track& track : status.tracks) {
        std::printf("%-10s ", NameOf(track.number).c_str());
        std::fflush(stdout);
        std::cout << (track.present ? "coming" : "absent") << ", " << BytesText(track.bytesPerHour)
                  << " an hour; since the start " << track.records << " records, " << BytesText(track.bytes)
                  << ", " << track.refused << " refused; "
                  << (track.span.IsEmpty() ? "nothing is recorded"
                                           : "last at " + TimeText(track.span.last, options.zone))
                  << std::endl;
    }
    if (const auto& uplink = status.uplink) {
        std::cout << "Uplink     " << uplink->state << (uplink->problem.empty() ? "" : ": " + uplink->problem)
                  << "; " << DurationText(uplink->lag) << " behind, " << DurationText(uplink->backlog)
                  << " to be filled in, " << BytesText(uplink->bytesPerSecond) << " a second, "
                  << uplink->gaps << " gaps told" << std::endl;
    }
}

} // namespace calvane_recording
