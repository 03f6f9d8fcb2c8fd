#include "calvane/recording/internal/history/EventsAround.h"

#include <algorithm>
#include <utility>

#include "calvane/recording/internal/TrackLock.h"
#include "calvane/recording/internal/history/HistoryReader.h"

namespace quarn::calvane {

using boost::posix_time::ptime;

namespace {

constexpr std::size_t kMostKept = 64; // Of each track: weeks, where recording goes on for hours.

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
            const auto found = std::find_if(kept.begin(), kept.end(),
                                            [&](const Stretch& stretch) { return stretch.has(t); });
            if (found != kept.end()) {
                std::rotate(kept.begin(), found, std::next(found));
                return kept.front().events;
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
    kept.resize(std::min(kept.size(), kMostKept - 1));
    kept.insert(kept.begin(), stretch);
}

} // namespace quarn::calvane
