#include "calvane/recording/internal/history/RecordingHistory.h"

#include <utility>

#include "calvane/recording/RecordingClock.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/RecordingRules.h"
#include "calvane/recording/internal/StoredRecord.h"
#include "calvane/recording/internal/TrackLock.h"
#include "calvane/recording/internal/history/HistoryCodec.h"
#include "calvane/recording/internal/history/HistoryReader.h"

namespace quarn::calvane {

using boost::posix_time::ptime;

namespace {

/// Events of several producers come slightly out of order; this long they are held to be put in order.
const boost::posix_time::time_duration kHoldTime = boost::posix_time::microseconds(1500000);
/// An event further ahead than this was dated by a clock that has been set back since.
const boost::posix_time::time_duration kMostLead = boost::posix_time::seconds(10);

} // namespace

void RecordingHistory::write(const ptime& t, const std::string& info) {
    RecordingTrack& history = _card.history();
    try {
        if (!history.ensureIncreasingTimestamps(t)) {
            return;
        }
        RecordHeader header;
        header.flags = RecordHeader::kHistory;
        header.ticks = ticksFromTime(t);
        appendRecord(*history.getTrack(), header, info.data(), info.size());
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_WARNING, "Failed to record history record: %s", error.what());
    }
}

void RecordingHistory::queue(const ptime& t, track_type type, bool present, CoverageReason reason) {
    const std::lock_guard<std::mutex> lock(_mutex);
    queueLocked(t, type, present, reason);
}

void RecordingHistory::queueClockJump(track_type type, const ptime& from, const ptime& to) {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_present.count(type) != 0) {
        queueLocked(from, type, false, CoverageReason::Clock);
        queueLocked(to, type, true, CoverageReason::Data);
    }
}

void RecordingHistory::queueLocked(const ptime& t, track_type type, bool present, CoverageReason reason) {
    HistoryEvent event;
    event.time = t;
    event.isOfTrack = true;
    event.present = present;
    event.track = type;
    event.reason = present ? CoverageReason::Stopped : reason; // As it is read.
    _queue.emplace(t, event);
    if (present) {
        _present.insert(type);
    } else {
        _present.erase(type);
    }
}

void RecordingHistory::writeQueue() {
    const std::lock_guard<std::mutex> writing(_writeMutex);
    const ptime now = RecordingClock::now();
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (mustWait()) {
            return;
        }
        redateFutureEvents(now);
    }
    while (writeOldestQueued(now - kHoldTime)) {
    }
}

/// The store is about to say that the card has gone, or that it is back: what is queued can be written when the card is back, and
/// behind what was queued when it went. With _mutex held.
bool RecordingHistory::mustWait() const {
    return _card.isAway() ? _cardLostAt.is_special() : _isHeld;
}

void RecordingHistory::goOn() {
    const std::lock_guard<std::mutex> lock(_mutex);
    _isHeld = false;
}

/// False when none is that old. It stays in the queue while it is being written: until it is in the track, others are to
/// find it here. With _writeMutex held.
bool RecordingHistory::writeOldestQueued(const ptime& cutoff) {
    Queue::iterator entry;
    HistoryEvent event;
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        entry = _queue.begin();
        if (entry == _queue.end() || cutoff < entry->first || mustWait()) {
            return false;
        }
        event = entry->second;
    }
    writeQueued(event);
    const std::lock_guard<std::mutex> lock(_mutex);
    _queue.erase(entry);
    return true;
}

/// Otherwise they would wait until the clock is there again.
void RecordingHistory::redateFutureEvents(const ptime& now) {
    for (auto entry = _queue.upper_bound(now + kMostLead); entry != _queue.end();) {
        // Lands in front of all that remain in this loop, and behind those of its own time.
        entry->second.time = now;
        _queue.emplace(now, entry->second);
        entry = _queue.erase(entry);
    }
}

/// An event that would be dated before the newest record gets the date of that: writing it as it is would be
/// taken for a clock that went back, and erase good data. A clock that did go back has had the history's
/// newer records erased by whoever wrote data first.
ptime RecordingHistory::dateFor(const ptime& t) const {
    RecordingTrack& history = _card.history();
    if (t <= kEarliestAllowedRecording) {
        return t;
    }
    try {
        history.setLatestToNewestRecord();
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "No newest history record: %s", error.what());
    }
    const ptime latest = history.getLatestTimestamp();
    return latest.is_special() || latest <= t ? t : latest;
}

void RecordingHistory::writeQueued(const HistoryEvent& event) {
    const ptime t = dateFor(event.time);
    write(t, textFromInfo(infoFromEvent(event)));
    const bool wasRecording = _tracksWithData > 0;
    _tracksWithData += event.present ? 1 : -1;
    const bool isRecording = _tracksWithData > 0;
    if (wasRecording != isRecording) {
        HistoryEvent ofAll;
        ofAll.present = isRecording;
        write(t, textFromInfo(infoFromEvent(ofAll)));
    }
}

void RecordingHistory::closeAfterRestart() {
    ptime newest;
    {
        const TrackLock lock(*_card.history().getTrack());
        ptime first;
        if (_card.history().getTrack()->size() > 0) {
            if (wasClosedCleanly()) {
                return;
            }
            _card.history().getRecordingTimePeriod(first, newest); // Nothing, if no record can be read.
        }
    }
    std::map<track_type, ptime> ends;
    for (const auto& [type, track] : _card.dataTracks()) {
        ptime first;
        ptime last;
        if (track->getRecordingTimePeriod(first, last)) {
            ends[type] = newest.is_special() || newest <= last ? last : newest;
        }
    }
    if (newest.is_special() && ends.empty()) {
        return; // A fresh card.
    }
    const std::set<track_type> interrupted = tracksLeftOpen(); // The others had stopped before.
    const std::lock_guard<std::mutex> writing(_writeMutex);
    const std::lock_guard<std::mutex> lock(_mutex);
    _tracksWithData = static_cast<std::int32_t>(_card.dataTracks().size());
    for (const auto& [type, end] : ends) {
        queueLocked(end, type, false,
                    interrupted.count(type) != 0 ? CoverageReason::Interrupted : CoverageReason::Stopped);
    }
}

/// Those whose data is present by the history's last word.
std::set<track_type> RecordingHistory::tracksLeftOpen() const {
    std::set<track_type> open;
    for (const HistoryEvent& event :
         HistoryReader(_card.history()).findState(ptime(boost::posix_time::pos_infin))) {
        if (event.isOfTrack && event.present) {
            open.insert(event.track);
        }
    }
    return open;
}

/// The newest record of the history whose bytes can be read; the size if there is none. With the track's lock held.
unsigned int RecordingHistory::findNewestRecord() const {
    drenn::multi_track_recorder::Track& track = *_card.history().getTrack();
    const unsigned int size = track.size();
    for (unsigned int index = size; index-- > 0;) {
        try {
            drenn::multi_track_recorder::BlobRecord record(-1);
            track.seekg(index);
            track >> record;
            return index;
        } catch (const std::exception& error) {
            _card.history().notePassedOver(index, error.what());
        }
    }
    return size;
}

/// What the newest history record that can be read says. With the history track's lock held.
bool RecordingHistory::wasClosedCleanly() const {
    const unsigned int newest = findNewestRecord();
    if (newest == _card.history().getTrack()->size()) {
        return false;
    }
    try {
        InfoMap info;
        ptime time;
        HistoryReader(_card.history()).readInfo(newest, info, time);
        return numberUnder(info, InfoKeys::kHistoryEventType) == kRecordingStateEvent &&
               numberUnder(info, InfoKeys::kRecordingState) == 0;
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(
            DRENN_CORE_LOG_ERROR,
            "The newest record of the history in %s cannot be used (%s). Stop this program, "
            "erase that record with \"calvane-store trim %s %u 1\" and start again",
            _card.root().c_str(), error.what(), _card.root().c_str(), _card.history().getTrack()->getId());
        throw;
    }
}

void RecordingHistory::noteCardLost() {
    const std::lock_guard<std::mutex> writing(_writeMutex);
    const std::lock_guard<std::mutex> lock(_mutex);
    _isHeld = true;
    if (!_cardLostAt.is_special()) {
        return;
    }
    _cardLostAt = RecordingClock::now();
    _queueAtLoss = std::move(_queue);
    _queue.clear();
    _presentAtLoss = _present;
    // Records fail as soon as the card is pulled, and on a busy machine a track's data can count as ended before the
    // store has noticed why. What ended so shortly before ended with the card.
    for (auto& [time, event] : _queueAtLoss) {
        if (!event.present && event.reason == CoverageReason::Stopped) {
            event.reason = CoverageReason::NoCard;
        }
    }
}

void RecordingHistory::repairAfterCard() {
    // What was erased last may be back, and later than what is to be written now. A track without records may be one whose
    // card is just coming once more; to take it for newer than it is does no harm.
    for (const auto& [type, track] : _card.dataTracks()) {
        if (track->getTrack()->size() != 0) {
            track->setLatestToNewestRecord();
        }
    }
    const std::lock_guard<std::mutex> writing(_writeMutex);
    if (_cardLostAt.is_special()) {
        return;
    }
    const ptime now = RecordingClock::now();
    std::int32_t tracksWithData = 0;
    for (const auto& [type, track] : _card.dataTracks()) {
        const auto last = HistoryReader(_card.history()).findLast(now, type);
        tracksWithData += last && last->present ? 1 : 0;
    }
    // From here on nothing fails.
    const std::lock_guard<std::mutex> lock(_mutex);
    const std::map<track_type, ptime> begun = beginsOfPresent(now);
    _tracksWithData = tracksWithData;
    _queue = std::move(_queueAtLoss);
    _queueAtLoss.clear();
    for (const track_type type : _presentAtLoss) {
        queueLocked(_cardLostAt, type, false, CoverageReason::NoCard);
    }
    for (const auto& [type, time] : begun) {
        queueLocked(time, type, true, CoverageReason::Data);
    }
    _cardLostAt = ptime();
}

/// Of the tracks whose data comes: since when it does, as far as that is known. With _mutex held.
std::map<track_type, ptime> RecordingHistory::beginsOfPresent(const ptime& now) const {
    std::map<track_type, ptime> begun;
    for (const track_type type : _present) {
        begun[type] = now;
    }
    for (const auto& [time, event] : _queue) {
        if (event.present && begun.count(event.track) != 0) {
            begun[event.track] = time;
        }
    }
    return begun;
}

bool RecordingHistory::isPresent(track_type type) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _present.count(type) != 0;
}

RecordingHistory::Unwritten RecordingHistory::unwrittenOf(track_type type) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    Unwritten unwritten;
    unwritten.isPresent = _present.count(type) != 0;
    for (const auto& [time, event] : _queue) {
        if (event.track == type) {
            unwritten.events.push_back(event);
        }
    }
    return unwritten;
}

} // namespace quarn::calvane
