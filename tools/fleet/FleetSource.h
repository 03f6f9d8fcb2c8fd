#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "RecordingClient.h"
#include "fleet/DeviceStream.h"
#include "record_source/RecordSource.h"

namespace calvane_fleet {

using calvane_recording::Interval;
using calvane_recording::Span;

/// Reason of a stretch that an open lane has not reached yet; the others are those of gaps.
constexpr unsigned int kNotCopiedYet = 101;

/// A lane as far as it counts: what a newer one has takes its place.
struct LaneRange {
    std::uint64_t number = 0;
    std::string subject;
    MessagePlace firstMessage;
    MessagePlace lastMessage;
    Time begin = 0;
    Time end = 0;  ///< Not included.
    Time last = 0; ///< Of its last message, or `end` if that is earlier.
    bool isComplete = false;
    std::uint64_t records = 0; ///< All that were sent in it.

    bool IsEmpty() const { return end <= begin; }
};

/// What the stream of one device has, as a source of records.
///
/// Threads:  one.
/// Errors:   NatsError; std::runtime_error for messages that are not of this format; Interrupted.
/// Lifetime: it knows what there was when it was asked first.
class FleetSource : public calvane_recording::IRecordSource {
public:
    /// `isInterrupted` is asked before every record.
    explicit FleetSource(
        DeviceStream& stream, std::function<bool()> isInterrupted = [] { return false; })
        : stream_(stream), isInterrupted_(std::move(isInterrupted)) {}

    Span GetSpan(TrackKind track) override;
    std::unique_ptr<calvane_recording::IRecords> Open(TrackKind track, const Span& span) override;
    std::optional<KeyFrame> FindKeyFrame(TrackKind track, Time at) override;

    /// In the order of their times, without those of which nothing counts.
    const std::vector<LaneRange>& GetLanes(std::optional<TrackKind> track);
    std::uint64_t GetRecords(TrackKind track);
    /// The newest one; empty if there is none.
    std::string GetInfo(TrackKind track);
    /// Where there is data (reason 0), and why there is none elsewhere.
    std::vector<Interval> GetCoverage(TrackKind track, const Span& span);
    std::vector<calvane_recording::Event> GetHistory(const Span& span);

private:
    std::vector<LaneRange> AskLanes(std::optional<TrackKind> track);

    DeviceStream& stream_;
    const std::function<bool()> isInterrupted_;
    std::map<int, std::vector<LaneRange>> lanes_; // By track, -1 for the history.
};

} // namespace calvane_fleet
