// Headers of records, and passing over those that cannot be read.

#include <algorithm>

#include "calvane/recording/RecordHeader.h"
#include "calvane/recording/RecordingTrack.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/StoredRecord.h"
#include "calvane/recording/internal/TrackLock.h"

namespace quarn::calvane {

using boost::posix_time::ptime;

namespace {

constexpr unsigned int kLookedAtOneByOne = 64;
constexpr std::size_t kMostSaid = 3;

/// The first of `count` places where reading works; `count` if there is none. Damage is mostly small, or a whole file:
/// the first places are looked at one by one, then the steps double.
template <typename IsReadable>
unsigned int firstReadable(unsigned int count, const IsReadable& isReadable) {
    const unsigned int near = std::min(count, kLookedAtOneByOne);
    for (unsigned int place = 0; place < near; ++place) {
        if (isReadable(place)) {
            return place;
        }
    }
    unsigned int low = near - 1;
    for (unsigned int step = 1; low + 1 < count; step *= 2) {
        unsigned int high = count - low - 1 > step ? low + step : count - 1;
        if (!isReadable(high)) {
            low = high;
            continue;
        }
        while (high - low > 1) {
            const unsigned int middle = low + (high - low) / 2;
            (isReadable(middle) ? high : low) = middle;
        }
        return high;
    }
    return count;
}

} // namespace

ptime RecordingTrack::getTimestampAtIndex(unsigned int index) const {
    const TrackLock lock(*_track);
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Getting recording header from track[%u] out of %u", index,
                          _track->size());
    try {
        return timeFromTicks(readHeader(index).ticks);
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Error reading data header: %s", error.what());
        throw;
    } catch (...) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Unknown error reading data header");
        throw;
    }
}

RecordHeader RecordingTrack::readHeader(unsigned int index) const {
    const TrackLock lock(*_track);
    return readRecordHeader(*_track, index);
}

bool RecordingTrack::timestampLessThan(unsigned int index, const ptime& t) const {
    const TrackLock lock(*_track);
    return getTimestampAtIndex(index) < t;
}

std::optional<ptime> RecordingTrack::findTimestamp(unsigned int index) const {
    const TrackLock lock(*_track);
    try {
        return timeFromTicks(readRecordHeader(*_track, index).ticks);
    } catch (const std::exception& error) {
        notePassedOver(index, error.what());
        return std::nullopt;
    }
}

void RecordingTrack::notePassedOver(unsigned int index, const char* problem) const {
    const TrackLock lock(*_track);
    if (_passedOver.size() < kMostSaid && _passedOver.insert(problem).second) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_WARNING,
                              "Record %u of the track of type %d cannot be read and is passed over: %s",
                              index, _trackType, problem);
    }
}

unsigned int RecordingTrack::getFirstReadableIndex(unsigned int index) const {
    const TrackLock lock(*_track);
    const std::optional<Stamp> found = findFirstReadable(index);
    return found ? found->index : _track->size();
}

std::optional<unsigned int> RecordingTrack::findLastReadableIndex(unsigned int end) const {
    const TrackLock lock(*_track);
    const std::optional<Stamp> found = findLastReadable(end);
    return found ? std::make_optional(found->index) : std::nullopt;
}

/// Within the lock: of the records from `index` on.
std::optional<RecordingTrack::Stamp> RecordingTrack::findFirstReadable(unsigned int index) const {
    const unsigned int size = _track->size();
    return index >= size ? std::nullopt
                         : findReadable(size - index, [index](unsigned int place) { return index + place; });
}

/// Within the lock: of the records in front of `end`.
std::optional<RecordingTrack::Stamp> RecordingTrack::findLastReadable(unsigned int end) const {
    const unsigned int count = std::min(end, _track->size());
    return count == 0 ? std::nullopt
                      : findReadable(count, [count](unsigned int place) { return count - 1 - place; });
}

/// The first of `count` places whose record, as `toIndex` tells it, can be read.
template <typename ToIndex>
std::optional<RecordingTrack::Stamp> RecordingTrack::findReadable(unsigned int count,
                                                                  const ToIndex& toIndex) const {
    std::optional<Stamp> found; // The last one that was read is the one that is found.
    (void)firstReadable(count, [&](unsigned int place) {
        const unsigned int index = toIndex(place);
        const std::optional<ptime> time = findTimestamp(index);
        if (time) {
            found = Stamp{index, *time};
        }
        return time.has_value();
    });
    return found;
}

bool RecordingTrack::getRecordingTimePeriod(ptime& first, ptime& last) const {
    const TrackLock lock(*_track);
    const std::optional<Stamp> newest = findLastReadable(_track->size());
    if (!newest || newest->index < _hidden) {
        return false;
    }
    const std::optional<Stamp> oldest = findFirstReadable(_hidden);
    first = oldest && oldest->index < newest->index ? oldest->time : newest->time;
    last = newest->time;
    return true;
}

bool RecordingTrack::getKnownTimePeriod(ptime& first, ptime& last) const {
    const TrackLock lock(*_track);
    const unsigned int size = _track->size();
    if (_period && _period->erasings == _erasings && _period->size == size) {
        first = _period->first;
        last = _period->last;
        return true;
    }
    const bool isThere = getRecordingTimePeriod(first, last);
    if (isThere && size != _sizeAtErasing) { // Otherwise it may be of records that are gone in a moment.
        _period = {_erasings, size, first, last};
    }
    return isThere;
}

} // namespace quarn::calvane
