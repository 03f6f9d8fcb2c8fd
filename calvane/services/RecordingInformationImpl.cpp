#include "calvane/services/RecordingInformationImpl.h"

#include <boost/lexical_cast/try_lexical_convert.hpp>
#include <cmath>
#include <stdexcept>

#include "calvane/recording/RecordingManager.h"
#include "calvane/services/internal/ServiceTime.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using drenn::api::ServiceTime;

namespace {

using InfoMap = RecordingManager::InfoMap;

/// The recorder with what is too old hidden, so that it is never told of.
RecordingManager& trimmedRecorder() {
    RecordingManager* const manager = RecordingManager::instance();
    manager->requireCard();
    manager->hideExpired();
    return *manager;
}

template <typename Number>
Number numberUnder(const InfoMap& info, const std::string& key) {
    const auto found = info.find(key);
    if (found == info.end()) {
        throw std::runtime_error("\"" + key + "\" is missing");
    }
    Number number{};
    // An unsigned conversion would take a minus sign.
    if (found->second.find('-') != std::string::npos ||
        !boost::conversion::try_lexical_convert(found->second, number) ||
        !std::isfinite(static_cast<double>(number))) {
        throw std::runtime_error("\"" + key + "\" is \"" + found->second + "\", which is not a number");
    }
    return number;
}

template <typename Number>
Number numberOrZero(const InfoMap& info, const std::string& key) {
    return info.count(key) != 0 ? numberUnder<Number>(info, key) : Number{};
}

unsigned int formatCode(const InfoMap& info, const std::string& key) {
    try {
        return numberUnder<unsigned int>(info, key);
    } catch (const std::exception&) {
        throw std::runtime_error("Unsupported recording format encountered");
    }
}

} // namespace

RecordingInformationImpl::RecordingInformationImpl(void* logCookie)
    : DrennApiRecordingInformationTargetImplBase(logCookie) {}

RecordingInformationImpl::~RecordingInformationImpl() = default;

void RecordingInformationImpl::updateEmptyRange(unsigned int& firstSec, unsigned int& firstUsec,
                                                unsigned int& lastSec, unsigned int& lastUsec) {
    firstSec = firstUsec = lastSec = lastUsec = 0;
}

void RecordingInformationImpl::updateRange(const ptime& first, const ptime& last, unsigned int& firstSec,
                                           unsigned int& firstUsec, unsigned int& lastSec,
                                           unsigned int& lastUsec) {
    const ServiceTime firstTime = serviceFromTime(first);
    const ServiceTime lastTime = serviceFromTime(last);
    firstSec = firstTime.sec;
    firstUsec = firstTime.usec;
    lastSec = lastTime.sec;
    lastUsec = lastTime.usec;
}

void RecordingInformationImpl::updateInfoRange(const ptime& start, unsigned int& startSec,
                                               unsigned int& startUsec, const ptime& end,
                                               unsigned int& endSec, unsigned int& endUsec) {
    updateRange(start, end, startSec, startUsec, endSec, endUsec);
}

unsigned int RecordingInformationImpl::getRecordingSummary(unsigned int* firstSec, unsigned int* firstUsec,
                                                           unsigned int* lastSec, unsigned int* lastUsec) {
    RecordingManager& manager = trimmedRecorder();
    updateEmptyRange(*firstSec, *firstUsec, *lastSec, *lastUsec);
    ptime first;
    ptime last;
    if (manager.getRecordingTimePeriod(first, last)) {
        updateRange(first, last, *firstSec, *firstUsec, *lastSec, *lastUsec);
    }
    return 0;
}

unsigned int RecordingInformationImpl::getTrackSummary(unsigned int trackType, unsigned int* firstSec,
                                                       unsigned int* firstUsec, unsigned int* lastSec,
                                                       unsigned int* lastUsec) {
    log(DRENN_CORE_LOG_DEBUG, "getTrackSummary");
    RecordingManager& manager = trimmedRecorder();
    updateEmptyRange(*firstSec, *firstUsec, *lastSec, *lastUsec);
    if (trackType > METADATA_TRACK) {
        return 1;
    }
    ptime first;
    ptime last;
    if (manager.getTrack(static_cast<track_type>(trackType)).getRecordingTimePeriod(first, last)) {
        updateRange(first, last, *firstSec, *firstUsec, *lastSec, *lastUsec);
    }
    return 0;
}

unsigned int RecordingInformationImpl::getRecordingState(unsigned int sec, unsigned int usec,
                                                         unsigned char* recording, unsigned char* video,
                                                         unsigned char* audio, unsigned char* metadata) {
    const RecordingManager& manager = trimmedRecorder();
    const ptime t = timeFromService({sec, usec});
    *video = manager.isRecordedAt(t, VIDEO_TRACK) ? 1 : 0;
    *audio = manager.isRecordedAt(t, AUDIO_TRACK) ? 1 : 0;
    *metadata = manager.isRecordedAt(t, METADATA_TRACK) ? 1 : 0;
    *recording = *video != 0 || *audio != 0 || *metadata != 0 ? 1 : 0;
    return 0;
}

unsigned int RecordingInformationImpl::getAudioAttributes(unsigned int sec, unsigned int usec,
                                                          unsigned int* bitsPerSample, unsigned int* channels,
                                                          double* samplingFrequency, unsigned int* startSec,
                                                          unsigned int* startUsec, unsigned int* endSec,
                                                          unsigned int* endUsec) {
    InfoMap info;
    ptime start;
    ptime end;
    RecordingManager& manager = trimmedRecorder();
    try {
        manager.getTrack(AUDIO_TRACK).getTrackInfoAt(timeFromService({sec, usec}), info, start, end);
        *bitsPerSample = numberUnder<unsigned int>(info, RecordingManager::kAudioBitsPerSample);
        *channels = numberUnder<unsigned int>(info, RecordingManager::kAudioNumChannels);
        *samplingFrequency = numberUnder<double>(info, RecordingManager::kAudioSamplingFrequency);
    } catch (const std::exception& error) {
        log(DRENN_CORE_LOG_ERROR, "Error fetching audio track info: %s", error.what());
        throw std::runtime_error(std::string("Error fetching audio track info: ") + error.what());
    }
    formatCode(info, RecordingManager::kAudioBufferFormat);
    updateInfoRange(start, *startSec, *startUsec, end, *endSec, *endUsec);
    return 0;
}

unsigned int RecordingInformationImpl::getVideoAttributes(unsigned int sec, unsigned int usec,
                                                          unsigned int* encoding, unsigned int* width,
                                                          unsigned int* height, unsigned int* bitrate,
                                                          double* frameRate, unsigned int* startSec,
                                                          unsigned int* startUsec, unsigned int* endSec,
                                                          unsigned int* endUsec) {
    InfoMap info;
    ptime start;
    ptime end;
    RecordingManager& manager = trimmedRecorder();
    try {
        manager.getTrack(VIDEO_TRACK).getTrackInfoAt(timeFromService({sec, usec}), info, start, end);
        *width = numberUnder<unsigned int>(info, RecordingManager::kVideoWidth);
        *height = numberUnder<unsigned int>(info, RecordingManager::kVideoHeight);
        *bitrate = numberOrZero<unsigned int>(info, RecordingManager::kVideoBitrate);
        *frameRate = numberOrZero<double>(info, RecordingManager::kVideoFrameRateMilliHz) / 1000;
    } catch (const std::exception& error) {
        log(DRENN_CORE_LOG_ERROR, "Error fetching video track info: %s", error.what());
        throw std::runtime_error(std::string("Error fetching video track info: ") + error.what());
    }
    *encoding = formatCode(info, RecordingManager::kVideoEncoding);
    updateInfoRange(start, *startSec, *startUsec, end, *endSec, *endUsec);
    return 0;
}

} // namespace quarn::calvane
