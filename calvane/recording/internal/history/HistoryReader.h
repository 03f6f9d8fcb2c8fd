#pragma once

#include <optional>
#include <vector>

#include "calvane/recording/HistoryEvent.h"
#include "calvane/recording/RecordingTrack.h"
#include "calvane/recording/internal/InfoMap.h"

namespace quarn::calvane {

/// Finds events in the history track: a binary search for the place, then a walk.
///
/// Threads: any. The history track's lock is held for a page of records at a time, so that writers need not wait.
/// Errors:  what the store throws where it cannot search. A record that cannot be read or understood on the
///          walk is passed over: the others still tell something.
class HistoryReader {
public:
    /// A walk that looks for an event of a certain kind gives up after this many records.
    static constexpr unsigned int kLongestWalk = 5000;

    explicit HistoryReader(const RecordingTrack& history) : _history(history) {}

    /// The last event of a track that is not later than `t`. The end of all recording counts as such.
    std::optional<HistoryEvent> findLast(const boost::posix_time::ptime& t, track_type type) const;
    /// The first event of a track that is later than `t`. A start or end of all recording in front of it stands for
    /// "present": there was none before.
    std::optional<HistoryEvent> findNext(const boost::posix_time::ptime& t, track_type type) const;
    /// The first `max` of a track's events that are later than `from` and not later than `to`.
    std::vector<HistoryEvent> findBetween(const boost::posix_time::ptime& from,
                                          const boost::posix_time::ptime& to, track_type type,
                                          std::size_t max) const;
    /// The last event of each kind before `t`: of the recording, then of the tracks by their numbers.
    std::vector<HistoryEvent> findState(const boost::posix_time::ptime& t) const;
    /// What the record at `index` says: nothing, and not-a-date-time, if it has not two blobs. Throws what the store
    /// and the codecs throw. Within the history track's lock.
    void readInfo(unsigned int index, InfoMap& info, boost::posix_time::ptime& time) const;
    /// As RecordingQueries::findHistory, without the state.
    HistoryPage readPage(const boost::posix_time::ptime& from, const boost::posix_time::ptime& to,
                         bool backward, unsigned int max, const HistoryCursor& cursor) const;

private:
    /// Goes over records from a cursor on, and keeps the cursor behind the last one that it left.
    class Walk;

    std::optional<HistoryEvent> read(unsigned int index) const;
    unsigned int firstAfter(const boost::posix_time::ptime& t) const;
    template <typename Take>
    void walk(const boost::posix_time::ptime& start, const boost::posix_time::ptime& end, bool backward,
              const Take& take) const;

    const RecordingTrack& _history;
};

} // namespace quarn::calvane
