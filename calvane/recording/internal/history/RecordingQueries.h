#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <vector>

#include "calvane/recording/Coverage.h"
#include "calvane/recording/HistoryEvent.h"
#include "calvane/recording/RecordingStatus.h"
#include "calvane/recording/internal/card/RecordingCard.h"
#include "calvane/recording/internal/card/RetentionLimits.h"
#include "calvane/recording/internal/history/EventsAround.h"
#include "calvane/recording/internal/history/RecordingHistory.h"

namespace quarn::calvane {

/// What clients ask: where there is data, why elsewhere there is none, what happened. RecordingManager describes the
/// operations under the same names.
///
/// Threads: any, without locks of tracks held.
/// Errors:  std::out_of_range for a type that is no data track; std::runtime_error while the card is away.
class RecordingQueries {
public:
    using Ptime = boost::posix_time::ptime;

    RecordingQueries(const RecordingCard& card, const RecordingHistory& history,
                     const RetentionLimits& limits)
        : _card(card), _history(history), _limits(limits), _around(card.history()) {}

    bool getRecordingTimePeriod(Ptime& first, Ptime& last) const;
    Ptime getEarliestDataAfter(const Ptime& t, track_type type) const;
    Ptime getEarliestDataAfter(const Ptime& t) const;
    bool isDataAvailable(const Ptime& t, track_type type) const;
    bool isDataAvailable(const Ptime& t) const;
    std::vector<CoverageSpan> getCoverage(track_type type, const Ptime& from, const Ptime& to) const;
    CoveragePage findCoverage(track_type type, const Ptime& from, const Ptime& to, unsigned int max) const;
    bool isRecordedAt(const Ptime& t, track_type type) const;
    HistoryPage findHistory(const Ptime& from, const Ptime& to, bool backward, unsigned int max,
                            const HistoryCursor& cursor) const;
    HistoryPage getHistoryEvent(const HistoryCursor& cursor) const;
    TrackStatus getTrackStatus(track_type type) const;

    static void updateEarliest(Ptime& current, const Ptime& candidate);
    static void updateLatest(Ptime& current, const Ptime& candidate);

private:
    CoverageReason whyNotTooOldIsErased() const;
    bool lookUpAvailability(const Ptime& t, track_type type) const;

    const RecordingCard& _card;
    const RecordingHistory& _history;
    const RetentionLimits& _limits;
    mutable EventsAround _around;
};

} // namespace quarn::calvane
