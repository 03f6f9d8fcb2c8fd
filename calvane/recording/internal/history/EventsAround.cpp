#include "calvane/recording/internal/history/EventsAround.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "calvane/recording/internal/TrackLock.h"
#include "calvane/recording/internal/history/HistoryReader.h"

namespace quarn::calvane {

using boost::posix_time::ptime;

namespace {

constexpr std::size_t kMostKept = 256; // Of each track: months, where recording goes on for hours.

ptime timeOf(const std::optional<HistoryEvent>& event) {
    return event ? event->time : ptime();
}

} // namespace

EventsAround::Events EventsAround::find(const ptime& t, track_type type) {
    const Version version = versionOfHistory();
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_version == version) {
            std::vector<Stretch>& kept = _kept[type];
            const auto behind = firstAfter(kept, t);
            if (behind != kept.begin() && std::prev(behind)->reaches(t)) {
                return std::prev(behind)->events;
            }
        }
    }
    const HistoryReader reader(_history);
    const Events events{reader.findLast(t, type), reader.findNext(t, type)};
    // A search that found nothing may have given up.
    const bool isCertain = events.last && (events.next || _history.getLatestTimestamp() <= t);
    if (isCertain) {
        // A start of all recording between the last event and this time would be the next one of an earlier time.
        const bool isFromLast = timeOf(reader.findNext(events.last->time, type)) == timeOf(events.next);
        keep({isFromLast ? events.last->time : t, events}, type, version);
    }
    return events;
}

EventsAround::Version EventsAround::versionOfHistory() const {
    const TrackLock lock(*_history.getTrack());
    return {_history.countErasings(), _history.getTrack()->size()};
}

void EventsAround::keep(const Stretch& stretch, track_type type, const Version& version) {
    if (versionOfHistory() != version) {
        return;
    }
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_version != version) {
        _kept.clear();
        _version = version;
    }
    std::vector<Stretch>& kept = _kept[type];
    if (kept.size() == kMostKept) {
        kept.clear();
    }
    kept.insert(firstAfter(kept, stretch.from), stretch);
}

std::vector<EventsAround::Stretch>::iterator EventsAround::firstAfter(std::vector<Stretch>& kept,
                                                                      const ptime& t) {
    return std::upper_bound(kept.begin(), kept.end(), t,
                            [](const ptime& time, const Stretch& stretch) { return time < stretch.from; });
}

} // namespace quarn::calvane
