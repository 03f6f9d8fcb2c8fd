#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "calvane/recording/Coverage.h"
#include "calvane/recording/HistoryEvent.h"
#include "calvane/recording/RecordingTrack.h"
#include "calvane/recording/internal/history/EventsAround.h"
#include "drenn/multi_track_recorder/Track.h"

namespace quarn::calvane {

/// Works out where a track has data, and why it has none elsewhere. The history divides the time into stretches;
/// where it says that data was present, that holds as far as there are records, which are not much further apart than
/// usual. Where it says nothing any more, or says absent although there are records, the records themselves tell: those
/// that are at most kLargestRecordGap apart belong together.
///
/// Threads: one. It takes the locks of the history and of the track, one after the other, and gives them back every few
///          records, so that no producer waits for a long answer. Records that are erased meanwhile make it look again.
class CoverageQuery {
public:
    /// What is not in the tracks.
    struct Moment {
        boost::posix_time::ptime now;
        bool isPresent = false;                              ///< It is being recorded.
        CoverageReason afterwards = CoverageReason::Unknown; ///< Why there is nothing behind the last record.
        std::vector<HistoryEvent> pending; ///< The track's events that are not in the history yet, by time.
        boost::posix_time::ptime cutoff;   ///< What is older was to be erased; or not-a-date-time.
        std::function<CoverageReason()> whyErased; ///< Why something is gone that was not too old.
    };

    CoverageQuery(const RecordingTrack& history, EventsAround& around, const RecordingTrack& track,
                  const Moment& moment);

    /// Up to `max` spans.
    CoveragePage run(const boost::posix_time::ptime& from, const boost::posix_time::ptime& to,
                     std::size_t max);

private:
    using Ptime = boost::posix_time::ptime;

    enum class Said { Nothing, Present, Absent };

    /// A time during which the history says the same.
    struct Stretch {
        Said said = Said::Nothing;
        CoverageReason reason = CoverageReason::Unknown;
        bool isCertain = false; ///< An event says so; otherwise it follows from the next one.
        Ptime begin;            ///< Not-a-date-time: open.
        Ptime end;
    };

    std::vector<Stretch> divide(std::size_t max);
    std::vector<HistoryEvent> eventsBetween(const Ptime& from, const Ptime& to, std::size_t max) const;
    std::optional<HistoryEvent> lastEvent(const Ptime& t, std::optional<HistoryEvent> last) const;
    std::optional<HistoryEvent> nextEvent(const Ptime& t, std::optional<HistoryEvent> next) const;
    std::optional<CoverageReason> lookNear(const Stretch& stretch, const Ptime& t) const;
    CoverageReason whyErased();
    static void apply(Stretch& stretch, const HistoryEvent& event);

    void addPresent(const Stretch& stretch, const Ptime& start, const Ptime& end);
    void addAbsent(const Stretch& stretch, const Ptime& start, const Ptime& end);
    void addRuns(const std::vector<CoverageSpan>& runs, const Ptime& start, const Ptime& end,
                 CoverageReason before, CoverageReason between, CoverageReason behind);
    boost::posix_time::time_duration usualInterval(unsigned int first, unsigned int last);
    std::pair<unsigned int, unsigned int> findRecords(const Ptime& from, const Ptime& to) const;
    std::vector<CoverageSpan> findRuns(const Stretch& stretch, const Ptime& start, const Ptime& end);
    std::vector<CoverageSpan> findRunsAtOnce(const Stretch& stretch, const Ptime& start, const Ptime& end);
    void giveWay();
    unsigned int findBetween(unsigned int first, unsigned int last) const;
    void joinRuns(unsigned int first, unsigned int last, const Ptime& firstTime, const Ptime& lastTime,
                  std::vector<CoverageSpan>& runs);
    void addErased(const Ptime& start, const Ptime& end);
    void append(const Ptime& start, const Ptime& end, CoverageReason reason);
    void add(const Ptime& start, const Ptime& end, CoverageReason reason);

    const RecordingTrack& _history;
    EventsAround& _around;
    const RecordingTrack& _track;
    const Moment& _moment;
    Ptime _from;
    Ptime _to;
    Ptime _first; // Of the records; not-a-date-time if there are none.
    Ptime _last;
    boost::posix_time::time_duration _usual;      // Between two records, where that is known.
    boost::posix_time::time_duration _longestGap; // Between two that belong together.
    unsigned int _reads = 0;
    std::unique_lock<const drenn::multi_track_recorder::Track>
        _lock;                   // The track's, while runs are looked for.
    std::uint64_t _erasings = 0; // Of the track, when they began.
    bool _givesWay = true;
    bool _isStale = false; // Records were erased since: their indexes are not true any more.
    std::optional<CoverageReason> _whyErased; // Once it was asked.
    std::vector<CoverageSpan> _spans;
};

} // namespace quarn::calvane
