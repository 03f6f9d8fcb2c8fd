#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "calvane/recording/HistoryEvent.h"
#include "calvane/recording/RecordingTrack.h"

namespace quarn::calvane {

/// What the history says around a time: HistoryReader::findLast and findNext. Clients ask for many times between the same
/// two events, so answers are kept as long as the history stays as it is.
///
/// Threads:  any, without locks of tracks held.
/// Errors:   as HistoryReader.
/// Lifetime: the history outlives it.
class EventsAround {
public:
    struct Events {
        std::optional<HistoryEvent> last; ///< Not later than the time.
        std::optional<HistoryEvent> next; ///< Later.
    };

    explicit EventsAround(const RecordingTrack& history) : _history(history) {}

    Events find(const boost::posix_time::ptime& t, track_type type);

private:
    using Ptime = boost::posix_time::ptime;

    /// Holds from a time on, up to the next event.
    struct Stretch {
        Ptime from;
        Events events;

        bool reaches(const Ptime& t) const { return !events.next || t < events.next->time; }
    };
    /// How often something was erased, and the size.
    using Version = std::pair<std::uint64_t, unsigned int>;

    Version versionOfHistory() const;
    void keep(const Stretch& stretch, track_type type, const Version& version);
    static std::vector<Stretch>::iterator firstAfter(std::vector<Stretch>& kept, const Ptime& t);

    const RecordingTrack& _history;
    std::mutex _mutex;                                // Taken for work in memory only.
    Version _version;                                 // Of what is kept.
    std::map<track_type, std::vector<Stretch>> _kept; // By `from`.
};

} // namespace quarn::calvane
