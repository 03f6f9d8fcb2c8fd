#include "calvane/recording/internal/card/RecordingCard.h"

#include <stdexcept>

#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/card/DeviceIdentity.h"
#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using drenn::multi_track_recorder::MultiTrackRecorder;
using drenn::multi_track_recorder::StoreState;

RecordingCard::RecordingCard(const StorageLocation& location, ITrackOwner& owner)
    : _root(location.root()),
      _multiTrackRecorder(MultiTrackRecorder::create(location.storageFolder(), location.databaseFolder(),
                                                     StorageLocation::kMostPercent)),
      _audioTrack(std::make_unique<RecordingTrack>(AUDIO_TRACK, &owner)),
      _videoTrack(std::make_unique<RecordingTrack>(VIDEO_TRACK, &owner)),
      _metadataTrack(std::make_unique<RecordingTrack>(METADATA_TRACK, &owner)),
      _historyTrack(std::make_unique<RecordingTrack>(kHistoryTrack, &owner)),
      _dataTracks{{AUDIO_TRACK, _audioTrack.get()},
                  {VIDEO_TRACK, _videoTrack.get()},
                  {METADATA_TRACK, _metadataTrack.get()}},
      _allTracks(_dataTracks) {
    _allTracks[kHistoryTrack] = _historyTrack.get();
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "RECORDING_MANAGER CONSTRUCTOR");
    openRecording();
    initTracks();
}

RecordingCard::~RecordingCard() {
    _audioTrack = nullptr;
    _videoTrack = nullptr;
    _metadataTrack = nullptr;
    _historyTrack = nullptr;
    _recording = nullptr;
    _multiTrackRecorder = nullptr;
}

void RecordingCard::openRecording() {
    const std::string deviceInfo = readDeviceIdentity();
    if (!takeRecordingOf(deviceInfo)) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_INFO, "Recording database is empty - creating new recording");
        _recording = _multiTrackRecorder->newRecording();
        _recording->setInfo(deviceInfo);
    }
}

/// Takes the first recording of this device; false if there is none.
bool RecordingCard::takeRecordingOf(const std::string& deviceInfo) {
    const auto recordings = _multiTrackRecorder->getRecordings();
    if (!recordings.empty()) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG,
                              "Found %zu existing recordings - looking for one with device info \"%s\"",
                              recordings.size(), deviceInfo.c_str());
    }
    for (const auto& weakRecording : recordings) {
        const auto recording = weakRecording.lock(); // The recorder keeps it.
        std::string info;
        recording->getInfo(info);
        if (info != deviceInfo) {
            continue;
        }
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "USING EXISTING RECORDING");
        for (const auto& weakTrack : recording->getTracks()) {
            const auto track = weakTrack.lock();
            if (track->size() == 0) {
                const unsigned int id = track->getId();
                CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Erasing empty track with id %u", id);
                recording->eraseTrack(id);
            }
        }
        _recording = recording;
        return true;
    }
    return false;
}

void RecordingCard::initTracks() {
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Initializing audio track");
    _audioTrack->initTrack(_recording);
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Initializing video track");
    _videoTrack->initTrack(_recording);
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Initializing metadata track");
    _metadataTrack->initTrack(_recording);
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Initializing history track");
    _historyTrack->initTrack(_recording);
}

ptime RecordingCard::newestTime() const {
    ptime newest;
    for (const auto& [type, track] : _allTracks) {
        const ptime latest = track->getLatestTimestamp();
        if (!latest.is_special() && (newest.is_special() || newest < latest)) {
            newest = latest;
        }
    }
    return newest;
}

bool RecordingCard::isAway() const {
    const StoreState state = _multiTrackRecorder->getState();
    return state == StoreState::NoCard || state == StoreState::OtherCard;
}

void RecordingCard::require() const {
    if (isAway()) {
        throw std::runtime_error("The card with the recording is away");
    }
}

void RecordingCard::awaitWriters() const {
    for (const auto& [type, track] : _allTracks) {
        track->awaitWriter();
    }
}

void RecordingCard::clear() {
    for (const auto& [type, track] : _allTracks) {
        track->clearTrack();
    }
}

} // namespace quarn::calvane
