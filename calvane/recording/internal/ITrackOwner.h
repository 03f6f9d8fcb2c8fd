#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "calvane/recording/Coverage.h"
#include "calvane/recording/track_type.h"

namespace quarn::calvane {

/// What a track asks of the recording that it belongs to, and tells it.
///
/// Threads: those that write and erase.
class ITrackOwner {
public:
    using Ptime = boost::posix_time::ptime;

    virtual ~ITrackOwner() = default;

    /// Whether no data is to be recorded yet, since the clock may be wrong.
    virtual bool isAwaitingClock() const = 0;
    /// The time of a record to be written is before that of the newest: what is recorded from `t` on has to go, from all
    /// tracks. Without locks of tracks held.
    virtual void eraseDataFrom(const Ptime& t) = 0;
    /// Without locks of tracks held.
    virtual void onDataPresentChange(const Ptime& t, track_type type, bool present,
                                     CoverageReason reason) = 0;
    /// The time of the records went on from `from` to `to` without that much time having passed. Without locks of
    /// tracks held.
    virtual void onClockJump(track_type type, const Ptime& from, const Ptime& to) = 0;
    /// Records are about to be gone: the times of the first and the last one. With the track's lock held.
    virtual void onErased(track_type type, const Ptime& first, const Ptime& last) = 0;
};

} // namespace quarn::calvane
