#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TimeText.h"

namespace calvane_recording {

/// The numbers that the services and the card have for the tracks.
enum class TrackKind : unsigned int { Video = 0, Audio = 1, Metadata = 2 };

const char* NameOf(TrackKind track);
/// Throws std::invalid_argument that names the text.
TrackKind ParseTrack(const std::string& name);

using InfoMap = std::map<std::string, std::string>;

/// A record of a track, with the info that holds for it.
struct Record {
    /// Zero bytes behind the payload, since parsers of media read ahead.
    static constexpr std::size_t kPadding = 64;

    Time time = 0;                      ///< The decode time.
    std::int64_t compositionOffset = 0; ///< From there to the presentation time, in microseconds.
    bool isKeyFrame = false;
    bool isAfterGap = false;             ///< Data is missing in front of it.
    std::shared_ptr<const InfoMap> info; ///< The same object as long as it does not change; never null.
    std::vector<unsigned char> bytes;    ///< The payload and the padding.
    std::size_t size = 0;                ///< Of the payload.

    Time PresentationTime() const { return time + compositionOffset; }
    /// Makes room for a payload of `length` bytes and sets the padding.
    unsigned char* SetSize(std::size_t length);
};

/// What was not there any more, or could not be read.
struct Losses {
    std::uint64_t unreadable = 0; ///< Records that are damaged on the card.
    std::uint64_t erased = 0;     ///< How often records were erased before they could be read.

    Losses& operator+=(const Losses& other);
};

/// The records of one track in the order of their times.
///
/// Threads: one.
/// Errors:  std::runtime_error when the source ends too early or fails; Interrupted.
class IRecords {
public:
    /// False behind the last record; `record` is not to be used then.
    virtual bool Read(Record& record) = 0;
    /// Whole when Read has returned false.
    virtual Losses GetLosses() const = 0;
    virtual ~IRecords() = default;
};

/// Where recorded data is read from: a recorder that runs, or a card.
///
/// Threads:  one, which reads what was opened, too.
/// Lifetime: outlives what was opened.
class IRecordSource {
public:
    struct KeyFrame {
        Time time = 0;
        Time presentationTime = 0;
        Time goesOnUntil = 0; ///< There is no gap between it and the wanted time if this is not earlier.
    };

    /// The times of the first and the last record.
    virtual Span GetSpan(TrackKind track) = 0;
    /// Those from `span.first` to `span.last`, both included.
    virtual std::unique_ptr<IRecords> Open(TrackKind track, const Span& span) = 0;
    /// The last key frame whose decode time is not later than `at`; nothing if there is none within an hour.
    virtual std::optional<KeyFrame> FindKeyFrame(TrackKind track, Time at) = 0;
    virtual ~IRecordSource() = default;
};

constexpr Time kFarthestKeyFrame = 3600 * kSecond;
/// Time without a record that is longer, and longer than five usual intervals, is a gap.
constexpr Time kShortestGap = 2 * kSecond;

/// When a gap would begin behind a record, by its distance from the one before it.
inline Time GapAfter(Time time, Time interval) {
    return time + std::max(kShortestGap, 5 * interval);
}

/// For sources without a question for it: reads what lies before, further and further back.
std::optional<IRecordSource::KeyFrame> FindKeyFrameByReading(IRecordSource& source, TrackKind track, Time at);

/// The last key frame that is shown at `at` or before it; nothing if there is none, or a gap at `at`.
std::optional<IRecordSource::KeyFrame> FindKeyFrameShownAt(IRecordSource& source, TrackKind track, Time at);

} // namespace calvane_recording
