#include "calvane/recording/internal/history/RecordingQueries.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "calvane/recording/RecordingClock.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/TrackLock.h"
#include "calvane/recording/internal/history/CoverageQuery.h"
#include "calvane/recording/internal/history/HistoryReader.h"
#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using drenn::multi_track_recorder::StoreState;
using drenn::multi_track_recorder::TrackClass;

bool RecordingQueries::getRecordingTimePeriod(ptime& first, ptime& last) const {
    for (const auto& [type, track] : _card.dataTracks()) {
        ptime trackFirst;
        ptime trackLast;
        if (track->getKnownTimePeriod(trackFirst, trackLast)) {
            updateEarliest(first, trackFirst);
            updateLatest(last, trackLast);
        }
    }
    return !first.is_not_a_date_time() && !last.is_not_a_date_time();
}

ptime RecordingQueries::getEarliestDataAfter(const ptime& t, track_type type) const {
    ptime result;
    const RecordingTrack& track = *_card.dataTracks().at(type);
    const TrackLock lock(*track.getTrack());
    try {
        updateEarliest(result,
                       track.getTimestampAtIndex(track.getFirstReadableIndex(track.getTrackIndex(t) + 1)));
    } catch (const std::exception&) { // There is none.
    }
    return result;
}

ptime RecordingQueries::getEarliestDataAfter(const ptime& t) const {
    ptime result;
    for (const auto& [type, track] : _card.dataTracks()) {
        updateEarliest(result, getEarliestDataAfter(t, type));
    }
    return result;
}

void RecordingQueries::updateEarliest(ptime& current, const ptime& candidate) {
    if (current.is_not_a_date_time() || candidate < current) {
        current = candidate;
    }
}

void RecordingQueries::updateLatest(ptime& current, const ptime& candidate) {
    if (current.is_not_a_date_time() || current < candidate) {
        current = candidate;
    }
}

bool RecordingQueries::isDataAvailable(const ptime& t, track_type type) const {
    try {
        return lookUpAvailability(t, type);
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "No history at the requested time: %s", error.what());
    } catch (...) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Unknown exception in isDataAvailable");
    }
    return false;
}

bool RecordingQueries::lookUpAvailability(const ptime& t, track_type type) const {
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "isDataAvailable on %d at %s", type, textOf(t).c_str());
    const TrackLock lock(*_card.history().getTrack());
    const RecordingTrack& track = *_card.dataTracks().at(type);
    ptime dataTime;
    {
        const TrackLock dataLock(*track.getTrack());
        dataTime = track.getTimestampAtIndex(track.getTrackIndex(t));
    }
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "data found at %s", textOf(dataTime).c_str());
    unsigned int index = _card.history().getTrackIndex(dataTime);
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "corresponding history index %u", index);
    bool result = true;
    for (;; ++index) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Checking history index %u", index);
        InfoMap info;
        ptime time;
        HistoryReader(_card.history()).readInfo(index, info, time);
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "event @ %s", textOf(time).c_str());
        if (dataTime <= time && time <= t &&
            numberUnder(info, InfoKeys::kHistoryEventType) == kTrackDataPresentEvent &&
            numberUnder(info, InfoKeys::kTrackType) == type) {
            result = numberUnder(info, InfoKeys::kTrackDataPresent) != 0;
        }
        if (time >= t) {
            break;
        }
    }
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Data available: %d", result ? 1 : 0);
    return result;
}

bool RecordingQueries::isDataAvailable(const ptime& t) const {
    return isDataAvailable(t, AUDIO_TRACK) || isDataAvailable(t, VIDEO_TRACK) ||
           isDataAvailable(t, METADATA_TRACK);
}

std::vector<CoverageSpan> RecordingQueries::getCoverage(track_type type, const ptime& from,
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

/// By the limits as they are now: nothing tells which ones were reached before.
CoverageReason RecordingQueries::whyNotTooOldIsErased() const {
    // The limit was reached when the last segment had come.
    constexpr std::uint64_t kSegment = std::uint64_t{16} << 20U;
    const std::uint64_t most = _limits.getMaxSpace().data;
    if (most != 0 && _card.store().getBytes(TrackClass::Bulk) + kSegment > most) {
        return CoverageReason::SpaceLimit;
    }
    return lookAtCard(_card.root()).isFull() ? CoverageReason::CardFull : CoverageReason::Erased;
}

CoveragePage RecordingQueries::findCoverage(track_type type, const ptime& from, const ptime& to,
                                            unsigned int max) const {
    const RecordingTrack& track = *_card.dataTracks().at(type);
    if (from.is_special() || to.is_special() || to < from) {
        throw std::invalid_argument("There is no time from " + textOf(from) + " to " + textOf(to));
    }
    _card.require();
    CoverageQuery::Moment moment;
    moment.now = RecordingClock::now();
    if (_card.store().getState() == StoreState::ReadOnly) {
        moment.afterwards = CoverageReason::Dropped;
    }
    // Before the history is read, so that no event is missed on its way there.
    RecordingHistory::Unwritten unwritten = _history.unwrittenOf(type);
    moment.isPresent = unwritten.isPresent;
    moment.pending = std::move(unwritten.events);
    moment.cutoff = _limits.cutoff(moment.now);
    moment.whyErased = [this] { return whyNotTooOldIsErased(); };
    return CoverageQuery(_card.history(), _around, track, moment).run(from, to, std::max(max, 1U));
}

TrackStatus RecordingQueries::getTrackStatus(track_type type) const {
    const RecordingTrack& track = *_card.dataTracks().at(type);
    TrackStatus status = track.getWritten();
    status.isPresent = _history.isPresent(type);
    try {
        track.getRecordingTimePeriod(status.first, status.last);
    } catch (const std::exception&) {
        status.first = status.last = ptime(); // The card is just going.
    }
    return status;
}

bool RecordingQueries::isRecordedAt(const ptime& t, track_type type) const {
    return getCoverage(type, t, t).front().reason == CoverageReason::Data;
}

HistoryPage RecordingQueries::findHistory(const ptime& from, const ptime& to, bool backward, unsigned int max,
                                          const HistoryCursor& cursor) const {
    _card.require();
    const HistoryReader reader(_card.history());
    HistoryPage page = reader.readPage(from, to, backward, max, cursor);
    if (cursor.passed == 0 && cursor.time == (backward ? to : from)) {
        page.state = reader.findState(from);
    }
    return page;
}

HistoryPage RecordingQueries::getHistoryEvent(const HistoryCursor& cursor) const {
    _card.require();
    return HistoryReader(_card.history())
        .readPage(cursor.time, ptime(boost::posix_time::pos_infin), false, 1, cursor);
}

} // namespace quarn::calvane
