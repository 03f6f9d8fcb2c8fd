// Finding records by time.

#include <algorithm>
#include <stdexcept>

#include "calvane/recording/RecordHeader.h"
#include "calvane/recording/RecordingLogImpl.h"
#include "calvane/recording/RecordingTrack.h"
#include "calvane/recording/TrackLockImpl.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using drenn::multi_track_recorder::BlobRecord;

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
    BlobRecord record(1);
    _track->seekg(index);
    *_track >> record;
    if (record.blobs().size() != 1) {
        throw std::runtime_error("Parse error in recorded data");
    }
    return parseHeader(record.blobs().front().data(), record.blobs().front().size());
}

bool RecordingTrack::timestampLessThan(unsigned int index, const ptime& t) const {
    const TrackLock lock(*_track);
    return getTimestampAtIndex(index) < t;
}

bool RecordingTrack::getRecordingTimePeriod(ptime& first, ptime& last) const {
    const TrackLock lock(*_track);
    const unsigned int size = _track->size();
    if (size == 0) {
        return false;
    }
    const ptime firstTime = getTimestampAtIndex(0);
    last = getTimestampAtIndex(size - 1);
    first = firstTime;
    return true;
}

unsigned int RecordingTrack::getFirstIndexNotBefore(const ptime& t) const {
    const TrackLock lock(*_track);
    unsigned int first = 0;
    unsigned int end = _track->size();
    while (first < end) {
        const unsigned int middle = first + (end - first) / 2;
        if (timestampLessThan(middle, t)) {
            first = middle + 1;
        } else {
            end = middle;
        }
    }
    return first;
}

unsigned int RecordingTrack::getTrackIndexForcedIntoBounds(const ptime& t) const {
    const TrackLock lock(*_track);
    const unsigned int size = _track->size();
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Looking up index for timestamp %s (out of %u)",
                          textOf(t).c_str(), size);
    if (size == 0) {
        throw std::out_of_range("No data");
    }
    unsigned int index = getFirstIndexNotBefore(t);
    if (index == size) {
        index = size - 1;
    }
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Found index %u", index);
    if (index > 0 && t < getTimestampAtIndex(index)) {
        --index;
        const ptime time = getTimestampAtIndex(index);
        while (index > 0 && getTimestampAtIndex(index - 1) == time) {
            --index;
        }
    }
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Returning index %u", index);
    return index;
}

unsigned int RecordingTrack::getTrackIndex(const ptime& t) const {
    const TrackLock lock(*_track);
    ptime first;
    ptime last;
    if (!getRecordingTimePeriod(first, last)) {
        throw std::out_of_range("No data");
    }
    if (t < first) {
        throw std::out_of_range("Timestamp is earlier than any recorded data");
    }
    if (last < t) {
        throw std::out_of_range("Timestamp is later than any recorded data");
    }
    return getTrackIndexForcedIntoBounds(t);
}

void RecordingTrack::getTrackInfoAt(const ptime& t, std::map<std::string, std::string>& info,
                                    ptime& rangeStart, ptime& rangeEnd) {
    std::string text;
    {
        const TrackLock lock(*_track);
        const ReadPositionKeeper keeper(*_track);
        const unsigned int index = getTrackIndex(t);
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Looking up info at index: %u", index);
        _track->seekg(index);
        const auto [first, last] = _track->getInfoRange();
        _track->getInfo(text);
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "got info: %u (%u, %u)", index, first, last);
        rangeStart = getTimestampAtIndex(first);
        rangeEnd = getTimestampAtIndex(std::min(_track->size() - 1, last));
    }
    RecordingManager::deserializeTrackInfo(text, info);
}

} // namespace quarn::calvane
