#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "RecordingClient.h"

namespace calvane_recording {

using nlohmann::json;

/// Why there is no data, in words, by the number that the services give.
std::string ReasonText(unsigned int reason);

/// "video", "audio", "metadata", and for a number that this program does not know "track 7".
std::string NameOf(unsigned int track);

// What the programs that answer in JSON say. Times are in UTC ("2026-11-21T13:00:00.250000Z"), durations in seconds.

json ToJson(Time time);
/// {"first": ..., "last": ...}
json ToJson(const Span& span);
Span SpanFrom(const json& facts);
json ToJson(const Event& event);
json ToJson(const std::vector<Event>& events);

/// null when nothing is recorded.
json SummaryAnswer(const Span& span);
/// By name; null for a track without records.
json TracksAnswer(RecordingClient& client, const std::vector<unsigned int>& tracks);
json StateAnswer(Time at, const State& state);
/// Of those of `tracks` that have attributes at that time, by name; without a time those of each one's last record.
/// Throws std::runtime_error when none has, with the recorder's reasons.
json AttributesAnswer(RecordingClient& client, const std::vector<unsigned int>& tracks,
                      const std::optional<Time>& at);
json StatusAnswer(const Status& status);

} // namespace calvane_recording
