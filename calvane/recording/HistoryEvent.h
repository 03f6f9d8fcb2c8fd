#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <vector>

#include "calvane/recording/Coverage.h"
#include "calvane/recording/track_type.h"

namespace quarn::calvane {

/// The kinds of history records, as they stand there.
inline constexpr int kRecordingStateEvent = 0;
inline constexpr int kTrackDataPresentEvent = 1;

/// What a history record tells.
struct HistoryEvent {
    boost::posix_time::ptime time;
    bool isOfTrack = false; ///< A track's data came or went; otherwise the recording started or stopped.
    bool present = false;   ///< It came, or started.
    track_type track = VIDEO_TRACK;                  ///< If it is of a track.
    CoverageReason reason = CoverageReason::Stopped; ///< Why it went.
};

/// Where to go on reading: after `passed` records of exactly this time. It stays valid when older data is erased.
struct HistoryCursor {
    boost::posix_time::ptime time;
    unsigned int passed = 0;
};

/// A part of the history.
struct HistoryPage {
    std::vector<HistoryEvent> state; ///< With the first page: the last event of each kind before the start.
    std::vector<HistoryEvent> events;
    HistoryCursor next;
    bool more = false; ///< There are others, from `next` on.
};

} // namespace quarn::calvane
