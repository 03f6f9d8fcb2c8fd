#include "calvane/recording/RecordingManager.h"

#include <stdexcept>

#include "calvane/recording/DrennApiException.h"
#include "calvane/recording/internal/InfoMap.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/RecordingRules.h"
#include "calvane/recording/internal/RecordingSession.h"
#include "calvane/recording/internal/StoredRecord.h"
#include "calvane/recording/internal/card/DeviceIdentity.h"
#include "calvane/recording/internal/card/StatusQuery.h"
#include "calvane/recording/internal/history/HistoryReader.h"
#include "calvane/services/RecordingInformationImpl.h"
#include "calvane/services/internal/RecordingServices.h"

namespace quarn::calvane {

using boost::posix_time::ptime;

const std::string RecordingManager::kAudioBitsPerSample = InfoKeys::kAudioBitsPerSample;
const std::string RecordingManager::kAudioNumChannels = InfoKeys::kAudioNumChannels;
const std::string RecordingManager::kAudioSamplingFrequency = InfoKeys::kAudioSamplingFrequency;
const std::string RecordingManager::kAudioBufferFormat = InfoKeys::kAudioBufferFormat;
const std::string RecordingManager::kVideoEncoding = InfoKeys::kVideoEncoding;
const std::string RecordingManager::kVideoWidth = InfoKeys::kVideoWidth;
const std::string RecordingManager::kVideoHeight = InfoKeys::kVideoHeight;
const std::string RecordingManager::kVideoFrameRateMilliHz = InfoKeys::kVideoFrameRateMilliHz;
const std::string RecordingManager::kVideoBitrate = InfoKeys::kVideoBitrate;
const std::string RecordingManager::kH264ProfileAndLevel = InfoKeys::kH264ProfileAndLevel;
const std::string RecordingManager::kH264SeqParamSet = InfoKeys::kH264SeqParamSet;
const std::string RecordingManager::kH264PicParamSet = InfoKeys::kH264PicParamSet;
const std::string RecordingManager::kHistoryEventType = InfoKeys::kHistoryEventType;
const std::string RecordingManager::kRecordingState = InfoKeys::kRecordingState;
const std::string RecordingManager::kTrackType = InfoKeys::kTrackType;
const std::string RecordingManager::kTrackDataPresent = InfoKeys::kTrackDataPresent;
const std::string RecordingManager::kReason = InfoKeys::kReason;
const ptime RecordingManager::kEarliestAllowedRecording = calvane::kEarliestAllowedRecording;
const boost::posix_time::time_duration RecordingManager::kLargestRecordGap = calvane::kLargestRecordGap;

std::int32_t RecordingManager::_recordingDisabledReason = 0;
std::atomic<RecordingManager*> RecordingManager::_singleton{nullptr};
void* RecordingManager::_logCookie = nullptr;

namespace {

StorageLocation location("/media/sd/");
RetentionLimits limits;
RecordingServices services;

/// The reason of what goes wrong is kept for those who ask why there is no recording.
template <typename Check>
void checkLocation(const Check& check) {
    try {
        check();
    } catch (const StorageLocation::Problem& problem) {
        RecordingManager::_recordingDisabledReason = static_cast<std::int32_t>(problem.reason());
        throw;
    }
}

} // namespace

// Lifecycle

void RecordingManager::setRecordingRootPath(const std::string& path) {
    if (path.empty()) {
        throw std::invalid_argument("The root path of the recording is empty");
    }
    if (_logCookie != nullptr) {
        throw std::logic_error("The root path of the recording can be set before init() only");
    }
    location = StorageLocation(path);
}

const std::string& RecordingManager::getRecordingRootPath() {
    return location.root();
}

std::uint32_t RecordingManager::getDiskMaxPercent() {
    return StorageLocation::kMostPercent;
}

void RecordingManager::init() {
    if (_logCookie != nullptr) {
        throw std::logic_error("RecordingManager::init() was called twice without deinit()");
    }
    _recordingDisabledReason = 0;
    CALVANE_DRENN_CALL(drenn_core_logging_init("RecordingManager", &_logCookie));
    RecordingLog::cookie = _logCookie;
    limits.load();
    services.start(_logCookie); // They run although recording may be disabled, and say so then.
    try {
        validateStorageLocation();
        try {
            _singleton = std::make_unique<RecordingManager>().release();
            RecordingSession::setCurrent(instance()->_session.get());
        } catch (...) {
            _recordingDisabledReason = static_cast<std::int32_t>(DisabledReason::NotOpened);
            throw;
        }
    } catch (const std::exception& error) {
        CALVANE_RECORDING_LOG(
            DRENN_CORE_LOG_WARNING,
            "Error loading RecordingManager (%s) - Recording and playback are currently disabled.",
            error.what());
    } catch (...) {
        CALVANE_RECORDING_LOG(
            DRENN_CORE_LOG_ERROR,
            "Unknown error loading RecordingManager - Recording and playback are currently disabled.");
    }
}

void RecordingManager::deinit() {
    services.stop();
    RecordingSession::setCurrent(nullptr);
    std::unique_ptr<RecordingManager> manager(_singleton.exchange(nullptr));
    manager = nullptr;
    if (_logCookie != nullptr) {
        RecordingLog::cookie = nullptr;
        drenn_core_logging_deinit(_logCookie);
        _logCookie = nullptr;
    }
}

RecordingManager* RecordingManager::instance() {
    RecordingManager* const singleton = _singleton.load();
    if (singleton == nullptr) {
        throw std::runtime_error("Recording is currently disabled");
    }
    return singleton;
}

void RecordingManager::validateStorageLocation() {
    checkLocation([] { location.validate(); });
}

void RecordingManager::validateStorageDirectoryEntry(const std::filesystem::directory_entry& entry) {
    checkLocation([&] { location.validateEntry(entry); });
}

std::string RecordingManager::getDeviceInfoString() {
    return readDeviceIdentity();
}

std::shared_ptr<RecordingInformationImpl> RecordingManager::getInformationService() {
    return services.information();
}

RecordingManager::RecordingManager()
    : _session(std::make_unique<RecordingSession>(location, limits, services)) {
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "RecordingManager cstr done");
}

RecordingManager::~RecordingManager() {
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "~RecordingManager() -- stopping api services");
    _session = nullptr;
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "done ~RecordingManager()");
}

bool RecordingManager::isAwaitingClock() const {
    return _session->isAwaitingClock();
}

void RecordingManager::awaitWriters() const {
    _session->card().awaitWriters();
}

void RecordingManager::clearAll() {
    _session->card().clear();
}

RecordingTrack& RecordingManager::getTrack(track_type type) const {
    return _session->card().track(type);
}

RecordingStatus GetRecordingStatus() {
    return lookAtRecording(location, static_cast<DisabledReason>(RecordingManager::_recordingDisabledReason));
}

// History

void RecordingManager::serializeTrackInfo(const InfoMap& info, std::string& out) {
    out = textFromInfo(info);
}

void RecordingManager::deserializeTrackInfo(const std::string& in, InfoMap& out) {
    out.clear();
    out = infoFromText(in);
}

void RecordingManager::writeHistoryRecord(const ptime& t, const std::string& serializedInfo) {
    _session->history().write(t, serializedInfo);
}

void RecordingManager::getHistoryRecord(unsigned int index, InfoMap& info, ptime& t) const {
    HistoryReader(_session->card().history()).readInfo(index, info, t);
}

void RecordingManager::queueTrackRecordingHistoryRecord(const ptime& t, track_type type, bool present) {
    _session->history().queue(t, type, present, CoverageReason::Stopped);
}

void RecordingManager::processHistorySaveQueue() {
    _session->processHistory();
}

void RecordingManager::notifyTrackRecordingDataPresentChange(const ptime& t, track_type type, bool present,
                                                             CoverageReason reason) {
    _session->onDataPresentChange(t, type, present, reason);
}

void RecordingManager::correctHistoryAfterReboot() {
    _session->history().closeAfterRestart();
}

RecordingManager::HistoryEventType RecordingManager::getEventType(const InfoMap& info) {
    return static_cast<HistoryEventType>(numberUnder(info, InfoKeys::kHistoryEventType));
}

bool RecordingManager::isDataAvailable(const ptime& t, track_type type) const {
    return _session->queries().isDataAvailable(t, type);
}

bool RecordingManager::isDataAvailable(const ptime& t) const {
    return _session->queries().isDataAvailable(t);
}

void RecordingManager::getTrackInfo(const drenn::multi_track_recorder::Track& track, InfoMap& info) {
    info = readFirstInfo(track);
}

// Retention and time

/// New ones hold at once, if there is a recording.
void RecordingManager::enforceLimits() {
    if (RecordingManager* const manager = _singleton.load()) {
        manager->enforceMaxRetentionTime();
    }
}

boost::posix_time::time_duration RecordingManager::getMaxRetentionTime() {
    return limits.getMaxTime();
}

void RecordingManager::setMaxRetentionTime(const Duration& rt) {
    limits.setMaxTime(rt);
    enforceLimits();
}

RecordingSpace RecordingManager::getMaxSpace() {
    return limits.getMaxSpace();
}

void RecordingManager::setMaxSpace(const RecordingSpace& space) {
    limits.setMaxSpace(space);
    enforceLimits();
}

bool RecordingManager::takeMaxRetentionTimeSetting() {
    const bool hasChanged = limits.takeSettings();
    if (hasChanged) {
        enforceLimits();
    }
    return hasChanged;
}

void RecordingManager::enforceMaxRetentionTime() {
    _session->retention().enforce();
}

void RecordingManager::eraseDataFrom(const ptime& t) {
    _session->retention().eraseFrom(t);
}

bool RecordingManager::getRecordingTimePeriod(ptime& first, ptime& last) const {
    return _session->queries().getRecordingTimePeriod(first, last);
}

ptime RecordingManager::getEarliestDataAfter(const ptime& t, track_type type) const {
    return _session->queries().getEarliestDataAfter(t, type);
}

ptime RecordingManager::getEarliestDataAfter(const ptime& t) const {
    return _session->queries().getEarliestDataAfter(t);
}

void RecordingManager::updateEarliest(ptime& current, const ptime& candidate) {
    RecordingQueries::updateEarliest(current, candidate);
}

void RecordingManager::updateLatest(ptime& current, const ptime& candidate) {
    RecordingQueries::updateLatest(current, candidate);
}

bool RecordingManager::getPlaybackInfo(const drenn::multi_track_recorder::BlobRecord& record,
                                       const unsigned char*& data, unsigned int& size, RecordHeader& header) {
    return splitRecord(record, data, size, header);
}

// Queries

std::vector<CoverageSpan> RecordingManager::getCoverage(track_type type, const ptime& from,
                                                        const ptime& to) const {
    return _session->queries().getCoverage(type, from, to);
}

CoveragePage RecordingManager::findCoverage(track_type type, const ptime& from, const ptime& to,
                                            unsigned int max) const {
    return _session->queries().findCoverage(type, from, to, max);
}

bool RecordingManager::isRecordedAt(const ptime& t, track_type type) const {
    return _session->queries().isRecordedAt(t, type);
}

HistoryPage RecordingManager::findHistory(const ptime& from, const ptime& to, bool backward, unsigned int max,
                                          const HistoryCursor& cursor) const {
    return _session->queries().findHistory(from, to, backward, max, cursor);
}

HistoryPage RecordingManager::getHistoryEvent(const HistoryCursor& cursor) const {
    return _session->queries().getHistoryEvent(cursor);
}

TrackStatus RecordingManager::getTrackStatus(track_type type) const {
    return _session->queries().getTrackStatus(type);
}

} // namespace quarn::calvane
