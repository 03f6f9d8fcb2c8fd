#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "RecordReader.h"
#include "RecordingClient.h"
#include "record_source/RecordSource.h"

namespace calvane_uplink {

using calvane_recording::Span;
using calvane_recording::Time;
using calvane_recording::TrackKind;

/// The recorder does not run, has no card, or has failed to answer: trying again may help.
class RecorderError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A record as it lies on the card.
struct CardRecord {
    Time time = 0;
    std::uint64_t same = 0; ///< Records of exactly this time in front of it.
    unsigned int flags = 0;
    std::int64_t offset = 0;
    std::vector<char> payload;
    std::string info;            ///< The info text that holds for it.
    bool isBehindErased = false; ///< What lay in front of it was erased before it could be read.
};

/// A place in a track: behind a record, or behind all of a time. A record is known by its content, too.
struct Position {
    Time time = 0;
    bool isBehindRecord = false;
    std::uint64_t same = 0; ///< Of the record.
    std::uint64_t hash = 0; ///< 0: not known.
    std::uint64_t next = 0; ///< Hash of the record a microsecond later; 0: not known. Not behind a record.
};

/// Of a record's payload.
std::uint64_t HashOf(const void* data, std::size_t size);

/// The records of a track from a position to a time that the card had when this was opened.
///
/// Threads: one.
/// Errors:  RecorderError; Interrupted.
class CardReader {
public:
    /// The record at which the position lies, or the one behind it, is not on the card, or not the same one.
    class PositionLost : public std::runtime_error {
    public:
        PositionLost() : std::runtime_error("The record at which to go on is not on the card") {}
    };

    CardReader(int descriptor, const Position& from, std::function<bool()> isInterrupted);

    /// Nothing behind the last one. Throws PositionLost before the first one.
    std::optional<CardRecord> Read();

private:
    calvane_recording::Frame ReadFrame();
    bool IsNew(const CardRecord& record);
    void CheckPosition();

    calvane_recording::RecordReader reader_;
    const Position from_;
    bool hasFound_; // The record of the position.
    Time lastTime_ = -1;
    std::uint64_t same_ = 0;
    std::string info_;
    bool isBehindErased_ = false;
};

/// The services of the recorder on this device, connected to when they are needed.
///
/// Threads: one.
/// Errors:  RecorderError, after which the next call connects anew.
class Recorder {
public:
    explicit Recorder(std::function<bool()> isInterrupted) : isInterrupted_(std::move(isInterrupted)) {}

    Span GetSpan(TrackKind track);
    /// From the position to `last`, both included.
    std::unique_ptr<CardReader> Open(TrackKind track, const Position& from, Time last);
    std::vector<calvane_recording::Interval> GetCoverage(TrackKind track, const Span& span);
    calvane_recording::HistoryPage GetHistoryPage(const Span& span,
                                                  const calvane_recording::HistoryCursor& from);
    /// The first 60 bits of the identity of what is recorded on the card. RecorderError without a card.
    std::uint64_t GetCard();
    /// Whether the card has this very record.
    bool Has(TrackKind track, const Position& record);

private:
    template <typename Call>
    auto Ask(const Call& call) -> decltype(call(std::declval<calvane_recording::RecordingClient&>()));

    const std::function<bool()> isInterrupted_;
    std::unique_ptr<calvane_recording::RecordingClient> client_;
};

} // namespace calvane_uplink
