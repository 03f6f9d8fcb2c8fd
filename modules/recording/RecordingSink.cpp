#include "RecordingSink.h"

#include <memory>
#include <vector>

#include "TrackInfo.h"
#include "calvane/buffer/Buffer.h"
#include "calvane/config/IPluginConfiguration.h"
#include "calvane/recording/RecordHeader.h"
#include "calvane/recording/RecordingClock.h"
#include "calvane/recording/RecordingManager.h"
#include "quarn/core/Logger.h"

namespace recording {

using namespace quarn::calvane;
using boost::posix_time::ptime;

namespace {

const std::string kInfoPrefix = "info.";
const std::string kInfo = "info";
const std::string kCompositionOffset = "CompositionOffsetUs";

} // namespace

RecordingSink::RecordingSink(CalvaneEnv*, const IPluginConfiguration& config)
    : BasicSinkPlugin(config),
      useClock_(config.GetIntOrDefault("clock", 0) != 0),
      track_(ReadTrack(config)),
      gaps_(config.GetPluginName(), ReadInterval(config)) {
    ReadInfo(config);
}

RecordingSink::~RecordingSink() {
    if (lost_ > 1) {
        logger->Warning("%llu buffers in a row were not recorded", lost_);
    }
}

track_type RecordingSink::ReadTrack(const IPluginConfiguration& config) const {
    const std::string track = config.GetStringOrDefault("track", "");
    if (track != "video" && track != "audio" && track != "metadata") {
        ErrorInSetting("track", "track must be video, audio or metadata, not \"" + track + "\"");
    }
    if (track == "video") {
        return VIDEO_TRACK;
    }
    return track == "audio" ? AUDIO_TRACK : METADATA_TRACK;
}

std::optional<UsualInterval> RecordingSink::ReadInterval(const IPluginConfiguration& config) const {
    const int timeout = config.GetIntOrDefault("gap.timeout.ms", 500);
    if (timeout < 1 || timeout > 1000) {
        ErrorInSetting("gap.timeout.ms",
                       "gap.timeout.ms must be from 1 to 1000, not " + std::to_string(timeout));
    }
    const int rate = config.GetIntOrDefault("rate.millihz", 0);
    if (rate < 0) {
        ErrorInSetting("rate.millihz", "rate.millihz must be 0 or more, not " + std::to_string(rate));
    }
    if (config.GetIntOrDefault("sparse", 0) != 0) {
        return std::nullopt;
    }
    return UsualInterval(std::chrono::milliseconds(timeout), rate);
}

void RecordingSink::ReadInfo(const IPluginConfiguration& config) {
    std::vector<std::string> keys;
    config.GetKeys(keys);
    for (const std::string& key : keys) {
        if (key.rfind(kInfoPrefix, 0) == 0 && key.size() > kInfoPrefix.size()) {
            givenInfo_[key.substr(kInfoPrefix.size())] = config.GetStringOrDefault(key.c_str(), "");
        }
    }
}

void RecordingSink::OnBuffer(const Sink*, Buffer* buffer) {
    const std::unique_ptr<Buffer> owned(buffer);
    try {
        Record(*owned);
    } catch (const std::exception& problem) {
        TakeLoss(problem.what());
    }
}

void RecordingSink::Record(const Buffer& buffer) {
    RecordingTrack& track = RecordingManager::instance()->getTrack(track_);
    const ptime time = TimeOf(buffer);
    UpdateInfo(track, buffer);
    const BufferMetadata& metadata = buffer.GetMetadata();
    unsigned int flags = 0;
    if (metadata.GetInt("KeyFrame") != 0) {
        flags |= RecordHeader::kKeyFrame;
    }
    if (metadata.Contains("FirstAfterGap")) {
        flags |= RecordHeader::kDiscontinuity;
    }
    if (!track.writeRecord(time, flags, buffer.GetData(), buffer.GetLength(),
                           metadata.GetInt(kCompositionOffset))) {
        TakeLoss("the clock is not set: its time lies before 2014, or before the newest record");
        return;
    }
    if (lost_ != 0) {
        logger->Warning("Recording again; %llu buffers were not recorded", lost_);
        lost_ = 0;
    }
    gaps_.Arrived(track, time);
}

void RecordingSink::UpdateInfo(RecordingTrack& track, const Buffer& buffer) {
    const BufferFormat& format = buffer.GetFormat();
    const std::string& text = buffer.GetMetadata().GetString(kInfo);
    const bool isNew = !text.empty() && text != infoText_;
    if (format_ && *format_ == format && !isNew) {
        return;
    }
    if (isNew) {
        bufferInfo_.clear();
        RecordingManager::deserializeTrackInfo(text, bufferInfo_);
        infoText_ = text;
    }
    auto info = givenInfo_;
    info.insert(bufferInfo_.begin(), bufferInfo_.end());
    info.merge(MakeTrackInfo(track_, format));
    track.setInfo(info);
    format_ = format;
}

ptime RecordingSink::TimeOf(const Buffer& buffer) const {
    const quarn::osa::TimeStruct timestamp = buffer.GetTimestamp();
    if (useClock_ || timestamp.IsZero()) {
        return RecordingClock::now();
    }
    return timeFromUnixMicroseconds(std::int64_t{timestamp.seconds} * 1'000'000 + timestamp.microseconds);
}

void RecordingSink::TakeLoss(const std::string& reason) {
    if (++lost_ == 1) {
        logger->Warning("A buffer was not recorded: %s", reason.c_str());
    }
}

} // namespace recording
