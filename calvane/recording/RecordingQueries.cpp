// What a client asks: where there is data, why elsewhere there is none, what happened.

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "calvane/recording/RecordingClock.h"
#include "calvane/recording/internal/CoverageQuery.h"
#include "calvane/recording/internal/HistoryCodec.h"
#include "calvane/recording/internal/HistoryReader.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using drenn::multi_track_recorder::StoreState;

bool RecordingManager::isCardAway() const {
    const StoreState state = _multiTrackRecorder->getState();
    return state == StoreState::NoCard || state == StoreState::OtherCard;
}

void RecordingManager::requireCard() const {
    if (isCardAway()) {
        throw std::runtime_error("The card with the recording is away");
    }
}

std::vector<CoverageSpan> RecordingManager::getCoverage(track_type type, const ptime& from,
                                                        const ptime& to) const {
    constexpr unsigned int kPage = 1000;
    CoveragePage page = findCoverage(type, from, to, kPage);
    std::vector<CoverageSpan> spans = std::move(page.spans);
    while (page.more) {
        page = findCoverage(type, page.next, to, kPage);
        auto begin = page.spans.begin();
        if (begin->reason == spans.back().reason) {
            spans.back().end = begin->end;
            ++begin;
        }
        spans.insert(spans.end(), begin, page.spans.end());
    }
    return spans;
}

CoveragePage RecordingManager::findCoverage(track_type type, const ptime& from, const ptime& to,
                                            unsigned int max) const {
    const RecordingTrack& track = *_dataTracks.at(type);
    if (from.is_special() || to.is_special() || to < from) {
        throw std::invalid_argument("There is no time from " + textOf(from) + " to " + textOf(to));
    }
    requireCard();
    CoverageQuery::Moment moment;
    moment.now = RecordingClock::now();
    if (_multiTrackRecorder->getState() == StoreState::ReadOnly) {
        moment.afterwards = CoverageReason::Dropped;
    }
    {
        // Before the history is read, so that no event is missed on its way there.
        const std::lock_guard<std::mutex> lock(_mutex);
        moment.isPresent = _presentTracks.count(type) != 0;
        if (!_maxRetentionTime.is_special() && _maxRetentionTime > boost::posix_time::time_duration()) {
            moment.cutoff = moment.now - _maxRetentionTime;
        }
        for (const auto& [time, info] : _historySaveQueue) {
            const HistoryEvent event = eventFromInfo(time, info);
            if (event.isOfTrack && event.track == type) {
                moment.pending.push_back(event);
            }
        }
    }
    return CoverageQuery(*_historyTrack, track, moment).run(from, to, std::max(max, 1U));
}

TrackStatus RecordingManager::getTrackStatus(track_type type) const {
    const RecordingTrack& track = getTrack(type);
    TrackStatus status = track.getWritten();
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        status.isPresent = _presentTracks.count(type) != 0;
    }
    try {
        track.getRecordingTimePeriod(status.first, status.last);
    } catch (const std::exception&) {
        status.first = status.last = ptime(); // The card is just going.
    }
    return status;
}

bool RecordingManager::isRecordedAt(const ptime& t, track_type type) const {
    return getCoverage(type, t, t).front().reason == CoverageReason::Data;
}

HistoryPage RecordingManager::findHistory(const ptime& from, const ptime& to, bool backward, unsigned int max,
                                          const HistoryCursor& cursor) const {
    requireCard();
    const HistoryReader reader(*_historyTrack);
    HistoryPage page = reader.readPage(from, to, backward, max, cursor);
    if (cursor.passed == 0 && cursor.time == (backward ? to : from)) {
        page.state = reader.findState(from);
    }
    return page;
}

HistoryPage RecordingManager::getHistoryEvent(const HistoryCursor& cursor) const {
    requireCard();
    return HistoryReader(*_historyTrack)
        .readPage(cursor.time, ptime(boost::posix_time::pos_infin), false, 1, cursor);
}

} // namespace quarn::calvane
