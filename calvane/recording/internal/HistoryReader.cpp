#include <boost/lexical_cast.hpp>
#include <map>

#include "calvane/recording/internal/HistoryReader.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/TrackLock.h"

namespace quarn::calvane {

using boost::posix_time::microseconds;
using boost::posix_time::ptime;
using drenn::multi_track_recorder::BlobRecord;

namespace {

int numberOf(const RecordingManager::InfoMap& info, const std::string& key) {
    return boost::lexical_cast<int>(info.at(key));
}

HistoryEvent eventFrom(const ptime& time, const RecordingManager::InfoMap& info) {
    HistoryEvent event;
    event.time = time;
    event.isOfTrack = RecordingManager::getEventType(info) == RecordingManager::TRACK_DATA_PRESENT_EVENT;
    if (!event.isOfTrack) {
        event.present = numberOf(info, RecordingManager::kRecordingState) != 0;
        return event;
    }
    event.present = numberOf(info, RecordingManager::kTrackDataPresent) != 0;
    event.track = static_cast<track_type>(numberOf(info, RecordingManager::kTrackType));
    if (info.count(RecordingManager::kReason) != 0) {
        event.reason = static_cast<CoverageReason>(numberOf(info, RecordingManager::kReason));
    }
    return event;
}

bool isOf(const std::optional<HistoryEvent>& event, track_type type) {
    return event && event->isOfTrack && event->track == type;
}

} // namespace

/// Within the lock.
std::optional<HistoryEvent> HistoryReader::read(unsigned int index) const {
    try {
        BlobRecord record;
        _history.getTrack()->seekg(index);
        *_history.getTrack() >> record;
        const unsigned char* data = nullptr;
        unsigned int size = 0;
        RecordHeader header;
        if (RecordingManager::getPlaybackInfo(record, data, size, header)) {
            RecordingManager::InfoMap info;
            RecordingManager::deserializeTrackInfo(std::string(data, data + size), info);
            return eventFrom(timeFromTicks(header.ticks), info);
        }
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "History record %u is passed over: %s", index,
                              error.what());
    }
    return std::nullopt;
}

unsigned int HistoryReader::firstAfter(const ptime& t) const {
    return _history.getFirstIndexNotBefore(t + microseconds(1));
}

std::optional<HistoryEvent> HistoryReader::findLast(const ptime& t, track_type type) const {
    const TrackLock lock(*_history.getTrack());
    std::optional<HistoryEvent> ended;
    const unsigned int start = firstAfter(t);
    for (unsigned int index = start; index > 0 && start - index < kLongestWalk; --index) {
        const std::optional<HistoryEvent> event = read(index - 1);
        if (isOf(event, type)) {
            return event;
        }
        if (event && ended && event->time != ended->time) {
            return ended;
        }
        if (event && !event->isOfTrack && !event->present) {
            ended = event; // The event that led to it has the same time, and may tell why.
        }
    }
    return ended;
}

std::optional<HistoryEvent> HistoryReader::findNext(const ptime& t, track_type type) const {
    const TrackLock lock(*_history.getTrack());
    const unsigned int size = _history.getTrack()->size();
    const unsigned int start = firstAfter(t);
    for (unsigned int index = start; index < size && index - start < kLongestWalk; ++index) {
        std::optional<HistoryEvent> event = read(index);
        if (event && !event->isOfTrack) {
            // The recording started, or stopped without this track: it was absent up to here.
            event->present = true;
            return event;
        }
        if (isOf(event, type)) {
            return event;
        }
    }
    return std::nullopt;
}

std::vector<HistoryEvent> HistoryReader::findBetween(const ptime& from, const ptime& to,
                                                     track_type type) const {
    const TrackLock lock(*_history.getTrack());
    std::vector<HistoryEvent> events;
    const unsigned int end = firstAfter(to);
    for (unsigned int index = firstAfter(from); index < end; ++index) {
        const std::optional<HistoryEvent> event = read(index);
        if (isOf(event, type)) {
            events.push_back(*event);
        }
    }
    return events;
}

std::vector<HistoryEvent> HistoryReader::findState(const ptime& t) const {
    const TrackLock lock(*_history.getTrack());
    constexpr std::size_t kKinds = 4;
    std::map<int, HistoryEvent> found;
    const unsigned int start = _history.getFirstIndexNotBefore(t);
    for (unsigned int index = start; index > 0 && start - index < kLongestWalk && found.size() < kKinds;
         --index) {
        if (const std::optional<HistoryEvent> event = read(index - 1)) {
            found.emplace(event->isOfTrack ? event->track : -1, *event);
        }
    }
    std::vector<HistoryEvent> state;
    state.reserve(found.size());
    for (const auto& [kind, event] : found) {
        state.push_back(event);
    }
    return state;
}

class HistoryReader::Walk {
public:
    Walk(const HistoryReader& reader, const HistoryCursor& cursor, bool backward)
        : _reader(reader),
          _cursor(cursor),
          _backward(backward),
          _place(backward ? reader.firstAfter(cursor.time)
                          : reader._history.getFirstIndexNotBefore(cursor.time)) {
        passOverUnreadable();
        for (unsigned int passed = 0; passed < cursor.passed && !isAtEnd() && time() == cursor.time;
             ++passed) {
            move();
        }
    }

    bool isAtEnd() const { return _backward ? _place == 0 : _place == _reader._history.getTrack()->size(); }
    ptime time() const { return _reader._history.getTimestampAtIndex(index()); }
    std::optional<HistoryEvent> event() const { return _reader.read(index()); }
    void pass() {
        const ptime passed = time();
        _cursor = {passed, passed == _cursor.time ? _cursor.passed + 1 : 1};
        move();
    }
    const HistoryCursor& cursor() const { return _cursor; }

private:
    unsigned int index() const { return _backward ? _place - 1 : _place; }
    void move() {
        _place = _backward ? _place - 1 : _place + 1;
        passOverUnreadable();
    }
    void passOverUnreadable() {
        if (_backward) {
            const std::optional<unsigned int> last = _reader._history.findLastReadableIndex(_place);
            _place = last ? *last + 1 : 0;
        } else {
            _place = _reader._history.getFirstReadableIndex(_place);
        }
    }

    const HistoryReader& _reader;
    HistoryCursor _cursor;
    const bool _backward;
    unsigned int _place; // Backwards, one more than the index.
};

HistoryPage HistoryReader::readPage(const ptime& from, const ptime& to, bool backward, unsigned int max,
                                    const HistoryCursor& cursor) const {
    const TrackLock lock(*_history.getTrack());
    HistoryCursor start = cursor;
    if (backward ? to < start.time : start.time < from) {
        start = {backward ? to : from, 0};
    }
    Walk walk(*this, start, backward);
    HistoryPage page;
    for (; !walk.isAtEnd(); walk.pass()) {
        if (backward ? walk.time() < from : to < walk.time()) {
            break;
        }
        const std::optional<HistoryEvent> event = walk.event();
        if (event && page.events.size() == max) {
            page.more = true;
            break;
        }
        if (event) {
            page.events.push_back(*event);
        }
    }
    page.next = walk.cursor();
    return page;
}

} // namespace quarn::calvane
