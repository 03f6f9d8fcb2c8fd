#include "calvane/recording/RecordingTrack.h"

#include <algorithm>
#include <boost/bind/bind.hpp>
#include <stdexcept>

#include "calvane/recording/RecordHeader.h"
#include "calvane/recording/RecordingClock.h"
#include "calvane/recording/internal/ITrackOwner.h"
#include "calvane/recording/internal/InfoMap.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/RecordingRules.h"
#include "calvane/recording/internal/StoredRecord.h"
#include "calvane/recording/internal/TrackLock.h"
#include "drenn/multi_track_recorder/Recording.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using drenn::multi_track_recorder::DataFormatVersion;
using drenn::multi_track_recorder::Recording;
using drenn::multi_track_recorder::Track;
using drenn::multi_track_recorder::TrackClass;

namespace {

constexpr unsigned int kFormatVersion = 1;

} // namespace

RecordingTrack::RecordingTrack(int type, ITrackOwner* owner)
    : _trackType(static_cast<track_type>(type)), _owner(owner) {}

RecordingTrack::~RecordingTrack() {
    if (_track != nullptr) {
        // The signal is raised with the lock held, so no slot runs when this has it.
        const TrackLock lock(*_track);
        _eraseRangeConnection.disconnect();
    }
}

void RecordingTrack::initTrack(boost::shared_ptr<Recording>& recording) {
    if (!adoptTrack(*recording)) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_INFO, "creating new track");
        // The history tells of the rest and outlives it when the card fills up.
        _track = recording->newTrack(_trackType == kHistoryTrack ? TrackClass::Sparse : TrackClass::Bulk);
        _track->setFormat(DataFormatVersion(std::to_string(_trackType), kFormatVersion));
    }
    _eraseRangeConnection = _track->connectToEraseRangeSignal(boost::bind(
        &RecordingTrack::onEraseRangeSignal, this, boost::placeholders::_1, boost::placeholders::_2));
    setLatestToNewestRecord();
}

/// Takes the first track of this type that has records; false if there is none.
bool RecordingTrack::adoptTrack(Recording& recording) {
    const auto tracks = recording.getTracks();
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Checking for existing track of type %d in %zu tracks",
                          _trackType, tracks.size());
    for (const auto& weakTrack : tracks) {
        const boost::shared_ptr<Track> track = weakTrack.lock();
        const TrackLock lock(*track);
        if (track->size() == 0) {
            continue;
        }
        track->seekg(0);
        const DataFormatVersion format = track->getFormat();
        if (format.getName() != std::to_string(_trackType)) {
            continue;
        }
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_INFO, "Found track of expected type (%d)", _trackType);
        if (format.getVersion() != kFormatVersion) {
            throw std::runtime_error("Invalid recording data version: (" + format.getName() + ", " +
                                     std::to_string(format.getVersion()) + ")");
        }
        _track = track;
        return true;
    }
    return false;
}

void RecordingTrack::clearTrack() {
    const TrackLock lock(*_track);
    if (_track->size() > 0) {
        _track->eraseRange(0, _track->size());
    }
}

ptime RecordingTrack::getLatestTimestamp() const {
    const std::lock_guard<std::mutex> lock(_latestMutex);
    return _latestTimestamp;
}

void RecordingTrack::setLatestTimestamp(const ptime& t) {
    const std::lock_guard<std::mutex> lock(_latestMutex);
    _latestTimestamp = t;
}

ITrackOwner& RecordingTrack::owner() const {
    if (_owner == nullptr) {
        throw std::runtime_error("Recording is currently disabled");
    }
    return *_owner;
}

void RecordingTrack::awaitWriter() const {
    const std::lock_guard<std::mutex> writer(_writeMutex);
    const TrackLock lock(*_track);
}

void RecordingTrack::setLatestToNewestRecord() {
    const TrackLock lock(*_track);
    ++_erasings;
    ++_losses;
    const unsigned int size = _track->size();
    const std::optional<unsigned int> newest = findLastReadableIndex(size);
    if (newest || size == 0) { // Where no record can be read the card may be just going.
        setLatestTimestamp(newest ? getTimestampAtIndex(*newest) : ptime());
    }
}

bool RecordingTrack::ensureIncreasingTimestamps(const ptime& t) {
    if (t.is_special() || t <= kEarliestAllowedRecording) {
        return false;
    }
    const ptime latest = getLatestTimestamp();
    if (_trackType != kHistoryTrack && _owner != nullptr && _owner->isAwaitingClock()) {
        return false;
    }
    if (!latest.is_special() && t < latest) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_NOTICE,
                              "Camera date has gone backwards.  Recorded data may be lost");
        owner().eraseDataFrom(t);
        requireNothingBehind(t);
    }
    setLatestTimestamp(t);
    return true;
}

/// What could not be read, since the card is just going, was not erased, and is there again with the card.
void RecordingTrack::requireNothingBehind(const ptime& t) const {
    const TrackLock lock(*_track);
    const unsigned int size = _track->size();
    const std::optional<unsigned int> newest = findLastReadableIndex(size);
    if (newest ? t < getTimestampAtIndex(*newest) : size != 0) {
        throw std::runtime_error("What was recorded from " + textOf(t) +
                                 " on, before the clock was set back, cannot be erased");
    }
}

bool RecordingTrack::writeRecord(const ptime& t, unsigned int flags, const void* data, std::size_t size,
                                 std::int64_t compositionOffset) {
    try {
        RecordHeader header;
        header.flags = static_cast<std::uint8_t>(flags);
        header.setCompositionOffset(compositionOffset);
        if (writeCheckedRecord(header, t, data, size)) {
            ++_writtenRecords;
            _writtenBytes += size;
            return true;
        }
    } catch (...) {
        ++_refusedRecords;
        throw;
    }
    ++_refusedRecords;
    return false;
}

bool RecordingTrack::writeCheckedRecord(RecordHeader header, const ptime& t, const void* data,
                                        std::size_t size) {
    bool jumped = false;
    ptime previous;
    {
        const std::lock_guard<std::mutex> lock(_writeMutex);
        previous = getLatestTimestamp();
        if (!ensureIncreasingTimestamps(t)) {
            return false;
        }
        header.ticks = ticksFromTime(t);
        appendRecord(*_track, header, data, size);
        jumped = jumpedForward(previous, t);
    }
    if (jumped && _owner != nullptr) {
        _owner->onClockJump(_trackType, previous, t);
    }
    return true;
}

TrackStatus RecordingTrack::getWritten() const {
    TrackStatus status;
    status.type = _trackType;
    status.writtenRecords = _writtenRecords;
    status.writtenBytes = _writtenBytes;
    status.refusedRecords = _refusedRecords;
    return status;
}

/// Whether the records' time went on by much more than time itself. With _writeMutex held.
bool RecordingTrack::jumpedForward(const ptime& previous, const ptime& t) {
    const std::int64_t now = RecordingClock::steadyMicroseconds();
    const std::int64_t passed = now - _lastWriteSteady;
    const bool isFirst = _lastWriteSteady == 0;
    _lastWriteSteady = now;
    return !isFirst && !previous.is_special() && t - previous > kLargestRecordGap &&
           passed < (t - previous).total_microseconds() / 2;
}

void RecordingTrack::setInfo(const std::map<std::string, std::string>& info) {
    _track->setInfo(textFromInfo(info));
}

void RecordingTrack::notifyRecordingDataPresentChange(const ptime& t, bool present) {
    notifyRecordingDataPresentChange(t, present, CoverageReason::Stopped);
}

void RecordingTrack::notifyRecordingDataPresentChange(const ptime& t, bool present, CoverageReason reason) {
    if (_trackType != kHistoryTrack) {
        owner().onDataPresentChange(t, _trackType, present, reason);
    }
}

void RecordingTrack::onEraseRangeSignal(unsigned int first, unsigned int last) {
    ++_erasings;
    _sizeAtErasing = _track->size();
    _hidden = last <= _hidden ? _hidden - (last - first) : std::min(first, _hidden);
    forgetSeen(first, last);
    if (_trackType == kHistoryTrack) {
        return;
    }
    try {
        reportErased(first, last);
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_ERROR,
                              "Error handling erase-range signal from recording library: %s", error.what());
    }
}

void RecordingTrack::reportErased(unsigned int first, unsigned int last) const {
    if (_owner == nullptr) {
        return;
    }
    const unsigned int begin = getFirstReadableIndex(first);
    if (begin >= last) {
        return; // No time is known of any of them.
    }
    const ptime start = getTimestampAtIndex(begin);
    const ptime end = last - begin <= 1 ? start : getTimestampAtIndex(*findLastReadableIndex(last));
    _owner->onErased(_trackType, start, end);
}

} // namespace quarn::calvane
