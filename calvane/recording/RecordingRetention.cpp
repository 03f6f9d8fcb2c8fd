// Erasing by age and after clock jumps, and what spans all tracks.

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "calvane/recording/DrennApiException.h"
#include "calvane/recording/RecordingClock.h"
#include "calvane/recording/RecordingManager.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/StoredRecord.h"
#include "calvane/recording/internal/TrackLock.h"
#include "drenn/core/Settings.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using boost::posix_time::time_duration;

namespace {

const time_duration kErasingPeriod = boost::posix_time::seconds(10);

time_duration storable(const time_duration& limit) {
    if (limit.is_special()) {
        return boost::posix_time::seconds(0);
    }
    const time_duration longest = boost::posix_time::seconds(std::numeric_limits<int>::max());
    const time_duration shortest = boost::posix_time::seconds(std::numeric_limits<int>::min());
    return std::clamp(limit, shortest, longest);
}

} // namespace

time_duration RecordingManager::getMaxRetentionTime() {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _maxRetentionTime;
}

void RecordingManager::setMaxRetentionTime(const time_duration& rt) {
    {
        const std::lock_guard<std::mutex> settingLock(_settingMutex);
        const time_duration limit = storable(rt);
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _maxRetentionTime = limit;
        }
        // Of the same sign, or 0.
        const std::array<drenn_core_int_setting, 2> settings{
            {{kMaxRetentionTimeSeconds, static_cast<int>(limit.ticks() / 1000000)},
             {kMaxRetentionTimeMicroseconds, static_cast<int>(limit.ticks() % 1000000)}}};
        requireDrennSuccess(
            drenn_core_settings_set_int_values(settings.data(), 2),
            "drenn_core_settings_set_int_value(kMaxRetentionTimeSeconds, rt.total_seconds())");
    }
    if (RecordingManager* const manager = _singleton.load()) {
        manager->enforceMaxRetentionTime();
    }
}

time_duration RecordingManager::readRetentionSetting() {
    std::array<drenn_core_int_setting, 2> settings{
        {{kMaxRetentionTimeSeconds, 0}, {kMaxRetentionTimeMicroseconds, 0}}};
    requireDrennSuccess(drenn_core_settings_get_int_values(settings.data(), 2),
                        "drenn_core_settings_get_int_value(kMaxRetentionTimeSeconds, &secs)");
    return boost::posix_time::microseconds(std::int64_t{settings[0].value} * 1000000 + settings[1].value);
}

bool RecordingManager::takeMaxRetentionTimeSetting() {
    {
        const std::lock_guard<std::mutex> settingLock(_settingMutex);
        const time_duration setting = readRetentionSetting();
        const bool isWhole = setting == std::exchange(_settingSeen, setting);
        const std::lock_guard<std::mutex> lock(_mutex);
        if (!isWhole || setting == _maxRetentionTime) {
            return false;
        }
        _maxRetentionTime = setting;
    }
    if (RecordingManager* const manager = _singleton.load()) {
        manager->enforceMaxRetentionTime();
    }
    return true;
}

void RecordingManager::enforceMaxRetentionTime() {
    const time_duration limit = getMaxRetentionTime();
    if (limit.is_special() || limit <= time_duration()) {
        return;
    }
    _nextErasing = RecordingClock::steadyMicroseconds() + kErasingPeriod.total_microseconds();
    const ptime cutoff = RecordingClock::now() - limit;
    for (const auto& [type, track] : _allTracks) {
        const TrackLock lock(*track->getTrack());
        track->hideBefore(ptime());
        ptime first;
        ptime last;
        if (track->getRecordingTimePeriod(first, last) && first < cutoff) {
            track->getTrack()->eraseRange(0, track->getTrackIndexForcedIntoBounds(cutoff) + 1);
        }
    }
}

void RecordingManager::hideExpired() {
    if (RecordingClock::steadyMicroseconds() >= _nextErasing) {
        try {
            enforceMaxRetentionTime();
        } catch (const std::exception& problem) { // A card that cannot be written to can still be asked.
            CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "What is too old was not erased: %s", problem.what());
        }
    }
    const time_duration limit = getMaxRetentionTime();
    const bool isLimited = !limit.is_special() && limit > time_duration();
    const ptime cutoff = isLimited ? RecordingClock::now() - limit : ptime();
    for (const auto& [type, track] : _allTracks) {
        track->hideBefore(cutoff);
    }
}

void RecordingManager::eraseDataFrom(const ptime& t) {
    for (const auto& [type, track] : _allTracks) {
        const TrackLock lock(*track->getTrack());
        track->hideBefore(ptime());
        ptime first;
        ptime last;
        if (track->getRecordingTimePeriod(first, last)) {
            const unsigned int index = t < first ? 0 : track->getTrackIndexForcedIntoBounds(t);
            track->getTrack()->eraseRange(index, track->getTrack()->size());
        }
    }
}

bool RecordingManager::getRecordingTimePeriod(ptime& first, ptime& last) const {
    for (const auto& [type, track] : _dataTracks) {
        ptime trackFirst;
        ptime trackLast;
        if (track->getRecordingTimePeriod(trackFirst, trackLast)) {
            updateEarliest(first, trackFirst);
            updateLatest(last, trackLast);
        }
    }
    return !first.is_not_a_date_time() && !last.is_not_a_date_time();
}

ptime RecordingManager::getEarliestDataAfter(const ptime& t, track_type type) const {
    ptime result;
    const RecordingTrack& track = *_dataTracks.at(type);
    const TrackLock lock(*track.getTrack());
    try {
        updateEarliest(result,
                       track.getTimestampAtIndex(track.getFirstReadableIndex(track.getTrackIndex(t) + 1)));
    } catch (const std::exception&) { // There is none.
    }
    return result;
}

ptime RecordingManager::getEarliestDataAfter(const ptime& t) const {
    ptime result;
    for (const auto& [type, track] : _dataTracks) {
        updateEarliest(result, getEarliestDataAfter(t, type));
    }
    return result;
}

void RecordingManager::updateEarliest(ptime& current, const ptime& candidate) {
    if (current.is_not_a_date_time() || candidate < current) {
        current = candidate;
    }
}

void RecordingManager::updateLatest(ptime& current, const ptime& candidate) {
    if (current.is_not_a_date_time() || current < candidate) {
        current = candidate;
    }
}

bool RecordingManager::getPlaybackInfo(const drenn::multi_track_recorder::BlobRecord& record,
                                       const unsigned char*& data, unsigned int& size, RecordHeader& header) {
    return splitRecord(record, data, size, header);
}

} // namespace quarn::calvane
