// The history: its queue, its records, its correction.

#include <boost/lexical_cast.hpp>
#include <stdexcept>

#include "calvane/recording/RecordingClock.h"
#include "calvane/recording/internal/HistoryReader.h"
#include "calvane/recording/internal/InfoMap.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/StoredRecord.h"
#include "calvane/recording/internal/TrackLock.h"
#include "calvane/services/RecordingInformationImpl.h"
#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using drenn::multi_track_recorder::BlobRecord;
using drenn::multi_track_recorder::StoreState;

namespace {

/// Events of several producers come slightly out of order; this long they are held to be put in order.
const boost::posix_time::time_duration kHoldTime = boost::posix_time::microseconds(1500000);
/// An event further ahead than this was dated by a clock that has been set back since.
const boost::posix_time::time_duration kMostLead = boost::posix_time::seconds(10);

} // namespace

void RecordingManager::writeHistoryRecord(const ptime& t, const std::string& serializedInfo) {
    try {
        if (!_historyTrack->ensureIncreasingTimestamps(t)) {
            return;
        }
        RecordHeader header;
        header.flags = RecordHeader::kHistory;
        header.ticks = ticksFromTime(t);
        appendRecord(*_historyTrack->getTrack(), header, serializedInfo.data(), serializedInfo.size());
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_WARNING, "Failed to record history record: %s", error.what());
    }
}

void RecordingManager::getHistoryRecord(unsigned int index, InfoMap& info, ptime& t) const {
    BlobRecord record(-1);
    _historyTrack->getTrack()->seekg(index);
    *_historyTrack->getTrack() >> record;
    const unsigned char* data = nullptr;
    unsigned int size = 0;
    RecordHeader header;
    std::string text;
    t = ptime();
    if (getPlaybackInfo(record, data, size, header)) {
        t = timeFromTicks(header.ticks);
        text.assign(data, data + size);
    }
    deserializeTrackInfo(text, info);
}

void RecordingManager::queueTrackRecordingHistoryRecord(const ptime& t, track_type type, bool present) {
    const std::lock_guard<std::mutex> lock(_mutex);
    queueLocked(t, type, present, CoverageReason::Stopped);
}

void RecordingManager::queueLocked(const ptime& t, track_type type, bool present, CoverageReason reason) {
    InfoMap info{{kHistoryEventType, std::to_string(TRACK_DATA_PRESENT_EVENT)},
                 {kTrackType, std::to_string(type)},
                 {kTrackDataPresent, present ? "1" : "0"}};
    if (!present && reason != CoverageReason::Stopped) {
        info[kReason] = std::to_string(static_cast<int>(reason));
    }
    _historySaveQueue.emplace(t, std::move(info));
    if (present) {
        _presentTracks.insert(type);
    } else {
        _presentTracks.erase(type);
    }
}

void RecordingManager::processHistorySaveQueue() {
    if (isAwaitingClock()) {
        return; // What is queued has been dated by a clock that was right.
    }
    const std::lock_guard<std::mutex> lock(_mutex);
    if (isCardAway() && _cardLostAt.is_special()) {
        return; // The store is about to say so, and what is queued can be written when the card is back.
    }
    const ptime now = RecordingClock::now();
    redateFutureEvents(now);
    const ptime cutoff = now - kHoldTime;
    while (!_historySaveQueue.empty() && _historySaveQueue.begin()->first <= cutoff) {
        const auto entry = _historySaveQueue.begin();
        writeQueuedEvent(dateForHistory(entry->first), entry->second);
        _historySaveQueue.erase(entry);
    }
}

/// Otherwise they would wait until the clock is there again.
void RecordingManager::redateFutureEvents(const ptime& now) {
    for (auto entry = _historySaveQueue.upper_bound(now + kMostLead); entry != _historySaveQueue.end();) {
        // Lands in front of all that remain in this loop, and behind those of its own time.
        _historySaveQueue.emplace(now, std::move(entry->second));
        entry = _historySaveQueue.erase(entry);
    }
}

/// An event that would be dated before the newest record gets the date of that: writing it as it is would be
/// taken for a clock that went back, and erase good data. A clock that did go back has had the history's
/// newer records erased by whoever wrote data first.
ptime RecordingManager::dateForHistory(const ptime& t) {
    if (t <= kEarliestAllowedRecording) {
        return t;
    }
    try {
        _historyTrack->setLatestToNewestRecord();
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "No newest history record: %s", error.what());
    }
    const ptime latest = _historyTrack->getLatestTimestamp();
    return latest.is_special() || latest <= t ? t : latest;
}

void RecordingManager::writeQueuedEvent(const ptime& t, const InfoMap& info) {
    writeHistoryRecord(t, textFromInfo(info));
    const bool wasRecording = _tracksWithDataCount > 0;
    _tracksWithDataCount += boost::lexical_cast<int>(info.at(kTrackDataPresent)) != 0 ? 1 : -1;
    const bool isRecording = _tracksWithDataCount > 0;
    if (wasRecording != isRecording) {
        writeHistoryRecord(t, textFromInfo({{kHistoryEventType, std::to_string(RECORDING_STATE_EVENT)},
                                            {kRecordingState, isRecording ? "1" : "0"}}));
    }
}

void RecordingManager::notifyTrackRecordingDataPresentChange(const ptime& t, track_type type, bool present) {
    notifyTrackRecordingDataPresentChange(t, type, present, CoverageReason::Stopped);
}

void RecordingManager::notifyTrackRecordingDataPresentChange(const ptime& t, track_type type, bool present,
                                                             CoverageReason reason) {
    RecordingManager* const manager = instance();
    if (const auto service = getInformationService()) {
        service->sendEventDataPresent(static_cast<unsigned int>(type), present ? 1 : 0);
    }
    const std::lock_guard<std::mutex> lock(_mutex);
    manager->queueLocked(t, type, present, reason);
}

void RecordingManager::noteClockJump(track_type type, const ptime& from, const ptime& to) {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_presentTracks.count(type) != 0) {
        queueLocked(from, type, false, CoverageReason::Clock);
        queueLocked(to, type, true, CoverageReason::Data);
    }
}

void RecordingManager::correctHistoryAfterReboot() {
    ptime newest;
    {
        const TrackLock lock(*_historyTrack->getTrack());
        ptime first;
        if (_historyTrack->getTrack()->size() > 0) {
            if (wasClosedCleanly()) {
                return;
            }
            _historyTrack->getRecordingTimePeriod(first, newest); // Nothing, if no record can be read.
        }
    }
    std::map<track_type, ptime> ends;
    for (const auto& [type, track] : _dataTracks) {
        ptime first;
        ptime last;
        if (track->getRecordingTimePeriod(first, last)) {
            ends[type] = newest.is_special() || newest <= last ? last : newest;
        }
    }
    if (newest.is_special() && ends.empty()) {
        return; // A fresh card.
    }
    std::set<track_type> interrupted; // The others had stopped before.
    for (const HistoryEvent& event :
         HistoryReader(*_historyTrack).findState(ptime(boost::posix_time::pos_infin))) {
        if (event.isOfTrack && event.present) {
            interrupted.insert(event.track);
        }
    }
    const std::lock_guard<std::mutex> lock(_mutex);
    _tracksWithDataCount = static_cast<std::int32_t>(_dataTracks.size());
    for (const auto& [type, end] : ends) {
        queueLocked(end, type, false,
                    interrupted.count(type) != 0 ? CoverageReason::Interrupted : CoverageReason::Stopped);
    }
}

/// The newest record of the history whose bytes can be read; the size if there is none. With the track's lock held.
unsigned int RecordingManager::findNewestHistoryRecord() const {
    const unsigned int size = _historyTrack->getTrack()->size();
    for (unsigned int index = size; index-- > 0;) {
        try {
            BlobRecord record(-1);
            _historyTrack->getTrack()->seekg(index);
            *_historyTrack->getTrack() >> record;
            return index;
        } catch (const std::exception& error) {
            _historyTrack->notePassedOver(index, error.what());
        }
    }
    return size;
}

/// What the newest history record that can be read says. With the history track's lock held.
bool RecordingManager::wasClosedCleanly() const {
    const unsigned int newest = findNewestHistoryRecord();
    if (newest == _historyTrack->getTrack()->size()) {
        return false;
    }
    try {
        InfoMap info;
        ptime time;
        getHistoryRecord(newest, info, time);
        return getEventType(info) == RECORDING_STATE_EVENT &&
               boost::lexical_cast<int>(info.at(kRecordingState)) == 0;
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(
            DRENN_CORE_LOG_ERROR,
            "The newest record of the history in %s cannot be used (%s). Stop this program, "
            "erase that record with \"calvane-store trim %s %u 1\" and start again",
            _recordingRootPath.c_str(), error.what(), _recordingRootPath.c_str(),
            _historyTrack->getTrack()->getId());
        throw;
    }
}

bool RecordingManager::isDataAvailable(const ptime& t, track_type type) const {
    try {
        return lookUpAvailability(t, type);
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "No history at the requested time: %s", error.what());
    } catch (...) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Unknown exception in isDataAvailable");
    }
    return false;
}

bool RecordingManager::lookUpAvailability(const ptime& t, track_type type) const {
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "isDataAvailable on %d at %s", type, textOf(t).c_str());
    const TrackLock lock(*_historyTrack->getTrack());
    const RecordingTrack& track = *_dataTracks.at(type);
    ptime dataTime;
    {
        const TrackLock dataLock(*track.getTrack());
        dataTime = track.getTimestampAtIndex(track.getTrackIndex(t));
    }
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "data found at %s", textOf(dataTime).c_str());
    unsigned int index = _historyTrack->getTrackIndex(dataTime);
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "corresponding history index %u", index);
    bool result = true;
    for (;; ++index) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Checking history index %u", index);
        InfoMap info;
        ptime time;
        getHistoryRecord(index, info, time);
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "event @ %s", textOf(time).c_str());
        if (dataTime <= time && time <= t && getEventType(info) == TRACK_DATA_PRESENT_EVENT &&
            boost::lexical_cast<int>(info.at(kTrackType)) == type) {
            result = boost::lexical_cast<int>(info.at(kTrackDataPresent)) != 0;
        }
        if (time >= t) {
            break;
        }
    }
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Data available: %d", result ? 1 : 0);
    return result;
}

bool RecordingManager::isDataAvailable(const ptime& t) const {
    return isDataAvailable(t, AUDIO_TRACK) || isDataAvailable(t, VIDEO_TRACK) ||
           isDataAvailable(t, METADATA_TRACK);
}

void RecordingManager::onStoreState(StoreState state) {
    switch (state) {
        case StoreState::Good:
            CALVANE_RECORDING_LOG(DRENN_CORE_LOG_NOTICE, "The card is back; recording goes on");
            try {
                repairHistoryAfterCard();
            } catch (const std::exception&
                         error) { // It may have gone again, and will be repaired when it is back.
                CALVANE_RECORDING_LOG(DRENN_CORE_LOG_WARNING,
                                      "The history was not repaired after the card was away: %s",
                                      error.what());
            }
            return;
        case StoreState::ReadOnly:
            CALVANE_RECORDING_LOG(DRENN_CORE_LOG_ERROR,
                                  "The card cannot be written to any more; nothing is recorded, and what is "
                                  "on it can be read. Replace it, or check it with calvane-store");
            return;
        case StoreState::NoCard:
        case StoreState::OtherCard:
            CALVANE_RECORDING_LOG(DRENN_CORE_LOG_ERROR,
                                  state == StoreState::NoCard
                                      ? "The card is away; nothing is recorded until it is back"
                                      : "Another card is in place of the recording's; it is left alone, and "
                                        "nothing is recorded until the right one is back");
            const std::lock_guard<std::mutex> lock(_mutex);
            if (_cardLostAt.is_special()) {
                _cardLostAt = RecordingClock::now();
                _queuedAtLoss = std::move(_historySaveQueue);
                _historySaveQueue.clear();
                _presentAtLoss = _presentTracks;
                blameCardForQueuedEnds();
            }
            return;
    }
}

/// Within the lock. Records fail as soon as the card is pulled, and on a busy machine a track's data can count as ended
/// before the store has noticed why. What ended so shortly before ended with the card.
void RecordingManager::blameCardForQueuedEnds() {
    for (auto& [time, info] : _queuedAtLoss) {
        if (info.at(kTrackDataPresent) == "0") {
            info.emplace(kReason, std::to_string(static_cast<int>(CoverageReason::NoCard)));
        }
    }
}

/// Events of the time without the card are lost. What had come before ended when the card went; what is present now
/// has begun again.
void RecordingManager::repairHistoryAfterCard() {
    // What was erased last may be back, and later than what is to be written now.
    for (const auto& [type, track] : _dataTracks) {
        track->setLatestToNewestRecord();
    }
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_cardLostAt.is_special()) {
        return;
    }
    const ptime now = RecordingClock::now();
    std::map<track_type, ptime> begun;
    for (const track_type type : _presentTracks) {
        begun[type] = now;
    }
    for (const auto& [time, info] : _historySaveQueue) {
        const auto type = static_cast<track_type>(boost::lexical_cast<int>(info.at(kTrackType)));
        if (info.at(kTrackDataPresent) == "1" && begun.count(type) != 0) {
            begun[type] = time;
        }
    }
    std::int32_t tracksWithData = 0;
    for (const auto& [type, track] : _dataTracks) {
        const auto last = HistoryReader(*_historyTrack).findLast(now, type);
        tracksWithData += last && last->present ? 1 : 0;
    }
    // From here on nothing fails.
    _tracksWithDataCount = tracksWithData;
    _historySaveQueue = std::move(_queuedAtLoss);
    _queuedAtLoss.clear();
    for (const track_type type : _presentAtLoss) {
        queueLocked(_cardLostAt, type, false, CoverageReason::NoCard);
    }
    for (const auto& [type, time] : begun) {
        queueLocked(time, type, true, CoverageReason::Data);
    }
    _cardLostAt = ptime();
}

} // namespace quarn::calvane
