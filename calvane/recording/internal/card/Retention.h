#pragma once

#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>

#include "calvane/recording/internal/card/RecordingCard.h"
#include "calvane/recording/internal/card/RetentionLimits.h"

namespace quarn::calvane {

/// Erases what is too old or too much, and what a clock that went back makes wrong.
///
/// Threads: any, without locks of tracks held. One track's lock is held at a time.
/// Errors:  what the store throws; the tracks before that have been dealt with.
class Retention {
public:
    Retention(const RecordingCard& card, const RetentionLimits& limits) : _card(card), _limits(limits) {}

    /// On each track, up to the last record that is not later than the cut-off. Then the oldest segments of the classes of
    /// tracks that take more space than they may.
    void enforce();
    /// Before a query: hides what is older than the limit, and erases it if that was not done in the last ten seconds. Erasing
    /// for each query would cost the device as many syncs.
    void hideExpired();
    /// Erases what is recorded from `t` on, and the record before it.
    void eraseFrom(const boost::posix_time::ptime& t);

private:
    void enforceTime(const boost::posix_time::ptime& cutoff);
    void enforceSpace();

    const RecordingCard& _card;
    const RetentionLimits& _limits;
    std::atomic<std::int64_t> _nextErasing{0}; // By the steady clock: not before, for a query.
};

} // namespace quarn::calvane
