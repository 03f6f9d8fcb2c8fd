#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "record_source/RecordSource.h"

namespace calvane_fleet {

using calvane_recording::Time;
using calvane_recording::TrackKind;

/// What a message of a device's stream is; docs/reference/fleet-format.md describes all of it.
enum class MessageKind {
    Begin,  ///< Opens a lane.
    Record, ///< A record, or a part of one.
    End,    ///< Nothing follows in the lane.
    Info,   ///< The info text of records.
    Gap,    ///< A time range without records, and why.
    Event,  ///< An event of the history.
};

/// Flags of a record: the numbers that the recorder's own stream of records has.
constexpr unsigned int kKeyFrame = 1;
constexpr unsigned int kAfterGap = 2;

/// A lane that was not complete when another one was opened: it goes on up to `end`, without it.
struct OpenLane {
    std::uint64_t lane = 0;
    Time end = 0;
};

/// The header "Calvane" of a message. Fields that a kind has no use for are 0.
struct MessageHead {
    MessageKind kind = MessageKind::Record;
    Time time = 0;
    std::uint64_t number = 0;     ///< Records of the lane up to this one.
    std::uint64_t same = 0;       ///< Records of exactly this time that were recorded before it.
    unsigned int flags = 0;       ///< Of a record.
    std::int64_t offset = 0;      ///< Composition offset, microseconds.
    std::uint64_t info = 0;       ///< Sequence of the message with the record's info text; 0: it has none.
    std::uint64_t partOffset = 0; ///< Where the message's bytes lie in the record.
    std::uint64_t partTotal = 0;  ///< Bytes of a record in several messages; 0: it is in one.
    Time last = 0;                ///< Of a gap: its end, as `time` is its begin.
    unsigned int reason = 0;      ///< Of a gap.
    std::uint64_t lane = 0;       ///< Of a gap: the lane that has it.
    std::uint64_t card = 0;       ///< Of a lane's begin: the card that its records are on; 0: not known.
    std::vector<OpenLane> open;   ///< Of a lane's begin.

    /// Whether a record ends with a message of so many bytes.
    bool IsLastPart(std::size_t bytes) const { return partTotal == 0 || partOffset + bytes >= partTotal; }
};

constexpr const char* kHeaderName = "Calvane";

/// Reason of a gap that the policy made; the others are those of the recorder's coverage.
constexpr unsigned int kNotSelected = 100;

std::string ToText(const MessageHead& head);
/// Throws std::runtime_error that has the text when it is none.
MessageHead ParseHead(const std::string& text);

/// Whether a name can be part of a subject and of a stream's name: letters, digits, - and _, at most 64.
bool IsDeviceName(const std::string& name);

std::string StreamOf(const std::string& device);
/// The device of a stream's name; nothing if it is none of a device.
std::optional<std::string> DeviceOf(const std::string& stream);
/// All subjects of a device: "calvane.DEVICE.>"
std::string SubjectsOf(const std::string& device);
std::string LaneSubject(const std::string& device, TrackKind track, std::uint64_t lane);
std::string InfoSubject(const std::string& device, TrackKind track);
std::string GapSubject(const std::string& device, TrackKind track);
std::string HistorySubject(const std::string& device, std::uint64_t lane);
/// All lanes of a track, or with nothing those of the history, as a filter with a wildcard.
std::string LanesFilter(const std::string& device, std::optional<TrackKind> track);
/// The lane at the end of a subject; nothing if it ends in something else.
std::optional<std::uint64_t> LaneOf(const std::string& subject);

} // namespace calvane_fleet
