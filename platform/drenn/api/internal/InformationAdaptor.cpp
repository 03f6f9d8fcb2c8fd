#include <utility>

#include "drenn/api/internal/InformationAdaptor.h"

namespace drenn::api {

InformationAdaptor::InformationAdaptor(sdbus::IConnection& connection, const std::string& path,
                                       DrennApiRecordingInformationTargetImplBase& implementation)
    : AdaptorInterfaces(connection, path), implementation_(implementation) {
    registerAdaptor();
}

InformationAdaptor::~InformationAdaptor() {
    unregisterAdaptor();
}

std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t>
InformationAdaptor::getRecordingSummary() {
    U firstSec = 0, firstUsec = 0, lastSec = 0, lastUsec = 0;
    AnswerCall("getRecordingSummary", [&] {
        return implementation_.getRecordingSummary(&firstSec, &firstUsec, &lastSec, &lastUsec);
    });
    return {firstSec, firstUsec, lastSec, lastUsec};
}

std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t> InformationAdaptor::getTrackSummary(
    const U& trackType) {
    U firstSec = 0, firstUsec = 0, lastSec = 0, lastUsec = 0;
    AnswerCall("getTrackSummary", [&] {
        return implementation_.getTrackSummary(trackType, &firstSec, &firstUsec, &lastSec, &lastUsec);
    });
    return {firstSec, firstUsec, lastSec, lastUsec};
}

std::tuple<std::uint8_t, std::uint8_t, std::uint8_t, std::uint8_t> InformationAdaptor::getRecordingState(
    const U& sec, const U& usec) {
    Y recording = 0, video = 0, audio = 0, metadata = 0;
    AnswerCall("getRecordingState", [&] {
        return implementation_.getRecordingState(sec, usec, &recording, &video, &audio, &metadata);
    });
    return {recording, video, audio, metadata};
}

std::tuple<std::uint32_t, std::uint32_t, double, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t>
InformationAdaptor::getAudioAttributes(const U& sec, const U& usec) {
    U bitsPerSample = 0, channels = 0, startSec = 0, startUsec = 0, endSec = 0, endUsec = 0;
    double samplingFrequency = 0;
    AnswerCall("getAudioAttributes", [&] {
        return implementation_.getAudioAttributes(sec, usec, &bitsPerSample, &channels, &samplingFrequency,
                                                  &startSec, &startUsec, &endSec, &endUsec);
    });
    return {bitsPerSample, channels, samplingFrequency, startSec, startUsec, endSec, endUsec};
}

std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, double, std::uint32_t, std::uint32_t,
           std::uint32_t, std::uint32_t>
InformationAdaptor::getVideoAttributes(const U& sec, const U& usec) {
    U encoding = 0, width = 0, height = 0, bitrate = 0, startSec = 0, startUsec = 0, endSec = 0, endUsec = 0;
    double frameRate = 0;
    AnswerCall("getVideoAttributes", [&] {
        return implementation_.getVideoAttributes(sec, usec, &encoding, &width, &height, &bitrate, &frameRate,
                                                  &startSec, &startUsec, &endSec, &endUsec);
    });
    return {encoding, width, height, bitrate, frameRate, startSec, startUsec, endSec, endUsec};
}

void InformationEvents::Attach(ServiceRunner* runner) {
    const std::lock_guard<std::mutex> guard(lock_);
    runner_ = runner;
}

void InformationEvents::Send(std::function<void(InformationAdaptor&)> send) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (runner_ != nullptr) {
        runner_->Post([this, work = std::move(send)] {
            if (adaptor_ != nullptr) {
                work(*adaptor_);
            }
        });
    }
}

} // namespace drenn::api
