#include "calvane/services/RecordingInformationImpl.h"

#include <boost/lexical_cast/try_lexical_convert.hpp>
#include <cmath>
#include <stdexcept>

#include "calvane/recording/internal/InfoMap.h"
#include "calvane/recording/internal/RecordingSession.h"
#include "calvane/services/internal/ServiceTime.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using drenn::api::ServiceTime;

namespace {

template <typename Number>
Number valueUnder(const InfoMap& info, const char* key) {
    const auto found = info.find(key);
    if (found == info.end()) {
        throw std::runtime_error(std::string("\"") + key + "\" is missing");
    }
    Number number{};
    // An unsigned conversion would take a minus sign.
    if (found->second.find('-') != std::string::npos ||
        !boost::conversion::try_lexical_convert(found->second, number) ||
        !std::isfinite(static_cast<double>(number))) {
        throw std::runtime_error(std::string("\"") + key + "\" is \"" + found->second +
                                 "\", which is not a number");
    }
    return number;
}

template <typename Number>
Number valueOrZero(const InfoMap& info, const char* key) {
    return info.count(key) != 0 ? valueUnder<Number>(info, key) : Number{};
}

unsigned int formatCode(const InfoMap& info, const char* key) {
    try {
        return valueUnder<unsigned int>(info, key);
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
    const RecordingSession& session = RecordingSession::forQuery();
    updateEmptyRange(*firstSec, *firstUsec, *lastSec, *lastUsec);
    ptime first;
    ptime last;
    if (session.queries().getRecordingTimePeriod(first, last)) {
        updateRange(first, last, *firstSec, *firstUsec, *lastSec, *lastUsec);
    }
    return 0;
}

unsigned int RecordingInformationImpl::getTrackSummary(unsigned int trackType, unsigned int* firstSec,
                                                       unsigned int* firstUsec, unsigned int* lastSec,
                                                       unsigned int* lastUsec) {
    log(DRENN_CORE_LOG_DEBUG, "getTrackSummary");
    const RecordingSession& session = RecordingSession::forQuery();
    updateEmptyRange(*firstSec, *firstUsec, *lastSec, *lastUsec);
    if (trackType > METADATA_TRACK) {
        return 1;
    }
    ptime first;
    ptime last;
    if (session.card().track(static_cast<track_type>(trackType)).getKnownTimePeriod(first, last)) {
        updateRange(first, last, *firstSec, *firstUsec, *lastSec, *lastUsec);
    }
    return 0;
}

unsigned int RecordingInformationImpl::getRecordingState(unsigned int sec, unsigned int usec,
                                                         unsigned char* recording, unsigned char* video,
                                                         unsigned char* audio, unsigned char* metadata) {
    const RecordingQueries& queries = RecordingSession::forQuery().queries();
    const ptime t = timeFromService({sec, usec});
    *video = queries.isRecordedAt(t, VIDEO_TRACK) ? 1 : 0;
    *audio = queries.isRecordedAt(t, AUDIO_TRACK) ? 1 : 0;
    *metadata = queries.isRecordedAt(t, METADATA_TRACK) ? 1 : 0;
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
    const RecordingSession& session = RecordingSession::forQuery();
    try {
        session.card().track(AUDIO_TRACK).getTrackInfoAt(timeFromService({sec, usec}), info, start, end);
        *bitsPerSample = valueUnder<unsigned int>(info, InfoKeys::kAudioBitsPerSample);
        *channels = valueUnder<unsigned int>(info, InfoKeys::kAudioNumChannels);
        *samplingFrequency = valueUnder<double>(info, InfoKeys::kAudioSamplingFrequency);
    } catch (const std::exception& error) {
        log(DRENN_CORE_LOG_ERROR, "Error fetching audio track info: %s", error.what());
        throw std::runtime_error(std::string("Error fetching audio track info: ") + error.what());
    }
    formatCode(info, InfoKeys::kAudioBufferFormat);
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
    const RecordingSession& session = RecordingSession::forQuery();
    try {
        session.card().track(VIDEO_TRACK).getTrackInfoAt(timeFromService({sec, usec}), info, start, end);
        *width = valueUnder<unsigned int>(info, InfoKeys::kVideoWidth);
        *height = valueUnder<unsigned int>(info, InfoKeys::kVideoHeight);
        *bitrate = valueOrZero<unsigned int>(info, InfoKeys::kVideoBitrate);
        *frameRate = valueOrZero<double>(info, InfoKeys::kVideoFrameRateMilliHz) / 1000;
    } catch (const std::exception& error) {
        log(DRENN_CORE_LOG_ERROR, "Error fetching video track info: %s", error.what());
        throw std::runtime_error(std::string("Error fetching video track info: ") + error.what());
    }
    *encoding = formatCode(info, InfoKeys::kVideoEncoding);
    updateInfoRange(start, *startSec, *startUsec, end, *endSec, *endUsec);
    return 0;
}

} // namespace quarn::calvane
