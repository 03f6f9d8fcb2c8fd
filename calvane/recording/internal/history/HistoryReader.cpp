#include <algorithm>
#include <map>

#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/StoredRecord.h"
#include "calvane/recording/internal/TrackLock.h"
#include "calvane/recording/internal/history/HistoryCodec.h"
#include "calvane/recording/internal/history/HistoryReader.h"

namespace quarn::calvane {

using boost::posix_time::microseconds;
using boost::posix_time::ptime;

namespace {

bool isOf(const HistoryEvent& event, track_type type) {
    return event.isOfTrack && event.track == type;
}

} // namespace

void HistoryReader::readInfo(unsigned int index, InfoMap& info, ptime& time) const {
    drenn::multi_track_recorder::BlobRecord record(-1);
    _history.getTrack()->seekg(index);
    *_history.getTrack() >> record;
    const unsigned char* data = nullptr;
    unsigned int size = 0;
    RecordHeader header;
    const bool isWhole = splitRecord(record, data, size, header);
    time = isWhole ? timeFromTicks(header.ticks) : ptime();
    info = infoFromText(std::string(data, data + size));
}

/// Within the lock.
std::optional<HistoryEvent> HistoryReader::read(unsigned int index) const {
    try {
        const StoredRecord record(*_history.getTrack(), index);
        return eventFromInfo(record.time(), infoFromText({record.data(), record.data() + record.size()}));
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "History record %u is passed over: %s", index,
                              error.what());
    }
    return std::nullopt;
}

unsigned int HistoryReader::firstAfter(const ptime& t) const {
    return _history.getFirstIndexNotBefore(t + microseconds(1));
}

/// Shows events between two times, both included, to `take` until that returns false.
template <typename Take>
void HistoryReader::walk(const ptime& start, const ptime& end, bool backward, const Take& take) const {
    constexpr unsigned int kFirstPage = 4; // Mostly one of the first is the one.
    constexpr unsigned int kLargestPage = 64;
    HistoryPage page;
    page.next = {start, 0};
    page.more = backward ? end <= start : start <= end;
    for (unsigned int size = kFirstPage; page.more; size = std::min(2 * size, kLargestPage)) {
        page = readPage(backward ? end : start, backward ? start : end, backward, size, page.next);
        if (!std::all_of(page.events.begin(), page.events.end(), take)) {
            return;
        }
    }
}

std::optional<HistoryEvent> HistoryReader::findLast(const ptime& t, track_type type) const {
    std::optional<HistoryEvent> found;
    unsigned int left = kLongestWalk;
    walk(t, boost::posix_time::neg_infin, true, [&](const HistoryEvent& event) {
        if (isOf(event, type)) {
            // It may have led to an end of all recording that has the same time, and tell why.
            found = !found || event.time == found->time ? event : found;
            return false;
        }
        if (found && event.time != found->time) {
            return false;
        }
        if (!event.isOfTrack && !event.present) {
            found = event;
        }
        return --left != 0;
    });
    return found;
}

std::optional<HistoryEvent> HistoryReader::findNext(const ptime& t, track_type type) const {
    std::optional<HistoryEvent> found;
    unsigned int left = kLongestWalk;
    walk(t + microseconds(1), boost::posix_time::pos_infin, false, [&](const HistoryEvent& event) {
        if (!event.isOfTrack || isOf(event, type)) {
            found = event;
            // The recording started, or stopped without this track: it was absent up to here.
            found->present = event.present || !event.isOfTrack;
        }
        return !found && --left != 0;
    });
    return found;
}

std::vector<HistoryEvent> HistoryReader::findBetween(const ptime& from, const ptime& to, track_type type,
                                                     std::size_t max) const {
    std::vector<HistoryEvent> events;
    walk(from + microseconds(1), to, false, [&](const HistoryEvent& event) {
        if (isOf(event, type)) {
            events.push_back(event);
        }
        return events.size() < max;
    });
    return events;
}

std::vector<HistoryEvent> HistoryReader::findState(const ptime& t) const {
    constexpr std::size_t kKinds = 4;
    std::map<int, HistoryEvent> found;
    unsigned int left = kLongestWalk;
    walk(t - microseconds(1), boost::posix_time::neg_infin, true, [&](const HistoryEvent& event) {
        found.emplace(event.isOfTrack ? event.track : -1, event);
        return found.size() < kKinds && --left != 0;
    });
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
          _begin(reader._history.getFirstIndexNotBefore(boost::posix_time::neg_infin)),
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

    bool isAtEnd() const {
        return _backward ? _place <= _begin : _place == _reader._history.getTrack()->size();
    }
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
    const unsigned int _begin; // What is in front of it is hidden.
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
