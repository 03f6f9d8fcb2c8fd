#include "calvane/recording/RecordingManager.h"

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <cstdlib>
#include <stdexcept>

#include "calvane/recording/DrennApiException.h"
#include "calvane/recording/internal/ClockWait.h"
#include "calvane/recording/internal/InfoMap.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/StoreWatch.h"
#include "calvane/recording/internal/TrackLock.h"
#include "calvane/services/RecordingDataAccessImpl.h"
#include "calvane/services/RecordingInformationImpl.h"
#include "drenn/api/DeviceInformation.h"
#include "drenn/api/DrennApiRecordingDataAccessTargetRun.h"
#include "drenn/api/DrennApiRecordingInformationTargetRun.h"
#include "drenn/core/Settings.h"
#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using drenn::multi_track_recorder::MultiTrackRecorder;

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
const ptime RecordingManager::kEarliestAllowedRecording(boost::gregorian::date(2014, 1, 1));
const boost::posix_time::time_duration RecordingManager::kLargestRecordGap = boost::posix_time::seconds(10);

std::atomic<RecordingManager*> RecordingManager::_singleton{nullptr};
std::mutex RecordingManager::_mutex;
std::mutex RecordingManager::_settingMutex;
boost::posix_time::time_duration RecordingManager::_settingSeen;
std::mutex RecordingManager::_serviceMutex;
void* RecordingManager::_logCookie = nullptr;
std::string RecordingManager::_recordingRootPath = "/media/sd/";
const std::string RecordingManager::_recordingStorageDir = "data";
const std::string RecordingManager::_recordingDatabaseDir = "database";
const std::uint32_t RecordingManager::_recordingDiskMaxPercent = 98;
std::int32_t RecordingManager::_recordingDisabledReason = 0;
boost::posix_time::time_duration RecordingManager::_maxRetentionTime;
std::shared_ptr<RecordingInformationImpl> RecordingManager::_recordingInformationImpl;
std::unique_ptr<drenn::api::DrennApiRecordingInformationTargetRun>
    RecordingManager::_recordingInformationService;
std::unique_ptr<drenn::api::DrennApiRecordingDataAccessTargetRun>
    RecordingManager::_recordingDataAccessService;

namespace {

constexpr std::int32_t kNoCard = 4;
constexpr std::int32_t kForeignData = 5;
constexpr std::int32_t kNotOpened = 6;

/// The texts that the device information hands out, and its handle; given back when it goes.
class DeviceInformation {
public:
    DeviceInformation() {
        CALVANE_DRENN_CALL(drenn_api_device_information_initiator_init(NULL, &cookie, 0, NULL)); // NOLINT
    }
    ~DeviceInformation() {
        for (char* text : {modelName, modelNumber, firwareVersion, hardwareVersion, serialNumber, hardwareID,
                           hardwareFamily, friendlyName, opSys, architecture}) {
            std::free(text);
        }
        drenn_api_device_information_initiator_deinit(cookie);
    }
    DeviceInformation(const DeviceInformation&) = delete;
    DeviceInformation& operator=(const DeviceInformation&) = delete;

    void fetch() {
        // As the text of the error has it: no blank behind the parenthesis.
        // clang-format off
        CALVANE_DRENN_CALL(drenn_api_device_information_get_all_send(cookie, "device_information",
                &modelName, &modelNumber, &firwareVersion, &hardwareVersion, &serialNumber, &hardwareID,
                &hardwareFamily, &friendlyName, &opSys, &architecture));
        // clang-format on
    }

    drenn_api_device_information_cookie cookie = nullptr;
    char* modelName = nullptr;
    char* modelNumber = nullptr;
    char* firwareVersion = nullptr; // Spelled as error texts have it.
    char* hardwareVersion = nullptr;
    char* serialNumber = nullptr;
    char* hardwareID = nullptr;
    char* hardwareFamily = nullptr;
    char* friendlyName = nullptr;
    char* opSys = nullptr;
    char* architecture = nullptr;
};

} // namespace

void RecordingManager::setRecordingRootPath(const std::string& path) {
    if (path.empty()) {
        throw std::invalid_argument("The root path of the recording is empty");
    }
    if (_logCookie != nullptr) {
        throw std::logic_error("The root path of the recording can be set before init() only");
    }
    _recordingRootPath = path.back() == '/' ? path : path + '/';
}

void RecordingManager::init() {
    if (_logCookie != nullptr) {
        throw std::logic_error("RecordingManager::init() was called twice without deinit()");
    }
    _recordingDisabledReason = 0;
    CALVANE_DRENN_CALL(drenn_core_logging_init("RecordingManager", &_logCookie));
    int secs = 0;
    int usecs = 0;
    CALVANE_DRENN_CALL(drenn_core_settings_set_default_int_value(kMaxRetentionTimeSeconds, 0));
    CALVANE_DRENN_CALL(drenn_core_settings_set_default_int_value(kMaxRetentionTimeMicroseconds, 0));
    CALVANE_DRENN_CALL(drenn_core_settings_get_int_value(kMaxRetentionTimeSeconds, &secs));
    CALVANE_DRENN_CALL(drenn_core_settings_get_int_value(kMaxRetentionTimeMicroseconds, &usecs));
    // Each could be read; now both as of one change.
    const boost::posix_time::time_duration limit = readRetentionSetting();
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _maxRetentionTime = limit;
    }
    startServices();
    try {
        validateStorageLocation();
        try {
            _singleton = std::make_unique<RecordingManager>().release();
        } catch (...) {
            _recordingDisabledReason = kNotOpened;
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

/// They run although recording may be disabled, and say so then.
void RecordingManager::startServices() {
    const auto information = std::make_shared<RecordingInformationImpl>(_logCookie);
    {
        const std::lock_guard<std::mutex> lock(_serviceMutex);
        _recordingInformationImpl = information;
    }
    _recordingInformationService = std::make_unique<drenn::api::DrennApiRecordingInformationTargetRun>(
        "recording_information", _logCookie, information);
    _recordingDataAccessService = std::make_unique<drenn::api::DrennApiRecordingDataAccessTargetRun>(
        "recording_data_access", _logCookie, std::make_shared<RecordingDataAccessImpl>(_logCookie));
}

void RecordingManager::deinit() {
    _recordingInformationService = nullptr;
    {
        // Those that are just sending an event hold it, too.
        const std::lock_guard<std::mutex> lock(_serviceMutex);
        _recordingInformationImpl = nullptr;
    }
    _recordingDataAccessService = nullptr;
    std::unique_ptr<RecordingManager> manager(_singleton.exchange(nullptr));
    manager = nullptr;
    if (_logCookie != nullptr) {
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

std::shared_ptr<RecordingInformationImpl> RecordingManager::getInformationService() {
    const std::lock_guard<std::mutex> lock(_serviceMutex);
    return _recordingInformationImpl;
}

void RecordingManager::validateStorageLocation() {
    std::error_code failure;
    if (!std::filesystem::is_directory(_recordingRootPath, failure)) {
        _recordingDisabledReason = kNoCard;
        throw std::runtime_error("No SD Card!");
    }
    std::filesystem::directory_iterator entry(_recordingRootPath, failure);
    while (!failure && entry != std::filesystem::directory_iterator()) {
        validateStorageDirectoryEntry(*entry);
        entry.increment(failure);
    }
    if (failure) {
        _recordingDisabledReason = kNoCard;
        throw std::runtime_error("Cannot list " + _recordingRootPath + ": " + failure.message());
    }
}

void RecordingManager::validateStorageDirectoryEntry(const std::filesystem::directory_entry& entry) {
    if (!isStorageName(entry)) {
        _recordingDisabledReason = kForeignData;
        throw std::runtime_error("Unexpected data in local-recording storage location");
    }
}

bool RecordingManager::isStorageName(const std::filesystem::directory_entry& entry) {
    if (entry.path() == std::filesystem::path(_recordingRootPath + "lost+found")) {
        // The file system makes it on every fresh card.
        std::error_code failure;
        return std::filesystem::is_directory(entry.symlink_status(failure));
    }
    return entry.path() == std::filesystem::path(_recordingRootPath + _recordingStorageDir) ||
           entry.path() == std::filesystem::path(_recordingRootPath + _recordingDatabaseDir);
}

std::string RecordingManager::getDeviceInfoString() {
    DeviceInformation device;
    device.fetch();
    // Nothing follows a field that is not known.
    std::string text = device.modelName != nullptr ? device.modelName + std::string(",") : std::string();
    if (device.modelName != nullptr && device.serialNumber != nullptr) {
        text += device.serialNumber;
    }
    return text;
}

RecordingManager::RecordingManager() {
    _multiTrackRecorder =
        MultiTrackRecorder::create(_recordingRootPath + _recordingStorageDir,
                                   _recordingRootPath + _recordingDatabaseDir, _recordingDiskMaxPercent);
    _audioTrack = std::make_unique<RecordingTrack>(AUDIO_TRACK);
    _videoTrack = std::make_unique<RecordingTrack>(VIDEO_TRACK);
    _metadataTrack = std::make_unique<RecordingTrack>(METADATA_TRACK);
    _historyTrack = std::make_unique<RecordingTrack>(kHistoryTrack);
    _dataTracks = {{AUDIO_TRACK, _audioTrack.get()},
                   {VIDEO_TRACK, _videoTrack.get()},
                   {METADATA_TRACK, _metadataTrack.get()}};
    _allTracks = _dataTracks;
    _allTracks[kHistoryTrack] = _historyTrack.get();
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "RECORDING_MANAGER CONSTRUCTOR");
    openRecording();
    initTracks();
    awaitClock();
    correctHistoryAfterReboot();
    _storeWatch = std::make_shared<StoreWatch>(*this);
    _storeWatch->connect(*_multiTrackRecorder);
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "RecordingManager cstr done");
}

void RecordingManager::openRecording() {
    const std::string deviceInfo = getDeviceInfoString();
    if (!takeRecordingOf(deviceInfo)) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_INFO, "Recording database is empty - creating new recording");
        _recording = _multiTrackRecorder->newRecording();
        _recording->setInfo(deviceInfo);
    }
}

/// Takes the first recording of this device; false if there is none.
bool RecordingManager::takeRecordingOf(const std::string& deviceInfo) {
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

void RecordingManager::initTracks() {
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Initializing audio track");
    _audioTrack->initTrack(_recording);
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Initializing video track");
    _videoTrack->initTrack(_recording);
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Initializing metadata track");
    _metadataTrack->initTrack(_recording);
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Initializing history track");
    _historyTrack->initTrack(_recording);
}

void RecordingManager::awaitClock() {
    constexpr int kDefaultWait = 300;
    int wait = kDefaultWait;
    if (drenn_core_settings_set_default_int_value(kClockWaitSeconds, kDefaultWait) != 0 ||
        drenn_core_settings_get_int_value(kClockWaitSeconds, &wait) != 0) {
        wait = kDefaultWait; // The log has the reason.
    }
    ptime newest;
    for (const auto& [type, track] : _allTracks) {
        const ptime latest = track->getLatestTimestamp();
        if (!latest.is_special()) {
            updateLatest(newest, latest);
        }
    }
    _clockWait = std::make_unique<ClockWait>(newest, boost::posix_time::seconds(wait));
}

bool RecordingManager::isAwaitingClock() const {
    return _clockWait->goesOn();
}

RecordingManager::~RecordingManager() {
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "~RecordingManager() -- stopping api services");
    _storeWatch->disconnect();
    _audioTrack = nullptr;
    _videoTrack = nullptr;
    _metadataTrack = nullptr;
    _historyTrack = nullptr;
    _recording = nullptr;
    _multiTrackRecorder = nullptr;
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "done ~RecordingManager()");
}

void RecordingManager::awaitWriters() const {
    for (const auto& [type, track] : _allTracks) {
        const std::lock_guard<std::mutex> writer(track->_writeMutex);
        const TrackLock lock(*track->getTrack());
    }
}

void RecordingManager::serializeTrackInfo(const InfoMap& info, std::string& out) {
    out = textFromInfo(info);
}

void RecordingManager::deserializeTrackInfo(const std::string& in, InfoMap& out) {
    out.clear();
    out = infoFromText(in);
}

RecordingManager::HistoryEventType RecordingManager::getEventType(const InfoMap& info) {
    return static_cast<HistoryEventType>(numberUnder(info, InfoKeys::kHistoryEventType));
}

void RecordingManager::getTrackInfo(const drenn::multi_track_recorder::Track& track, InfoMap& info) {
    info = readFirstInfo(track);
}

void RecordingManager::clearAll() {
    for (const auto& [type, track] : _allTracks) {
        track->clearTrack();
    }
}

} // namespace quarn::calvane
