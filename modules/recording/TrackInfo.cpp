#include "TrackInfo.h"

#include <utility>
#include <vector>

#include "calvane/recording/RecordingManager.h"

namespace recording {

using namespace quarn::calvane;

namespace {

/// Names of a format's properties, with the keys that they get.
using Properties = std::vector<std::pair<const char*, const std::string*>>;

Properties PropertiesOf(track_type track) {
    switch (track) {
        case VIDEO_TRACK:
            return {{"width", &RecordingManager::kVideoWidth},
                    {"height", &RecordingManager::kVideoHeight},
                    {"bitrate", &RecordingManager::kVideoBitrate},
                    {"frame.rate.millihz", &RecordingManager::kVideoFrameRateMilliHz}};
        case AUDIO_TRACK:
            return {{"bits.per.sample", &RecordingManager::kAudioBitsPerSample},
                    {"channels", &RecordingManager::kAudioNumChannels},
                    {"sample.freq", &RecordingManager::kAudioSamplingFrequency}};
        case METADATA_TRACK:
            break;
    }
    return {};
}

} // namespace

std::map<std::string, std::string> MakeTrackInfo(track_type track, const BufferFormat& format) {
    const std::string& code =
        track == VIDEO_TRACK ? RecordingManager::kVideoEncoding : RecordingManager::kAudioBufferFormat;
    std::map<std::string, std::string> info{{code, std::to_string(format.GetFormat())}};
    for (const auto& [property, key] : PropertiesOf(track)) {
        int value = 0;
        if (format.Get(property, value)) {
            info[*key] = std::to_string(value);
        }
    }
    return info;
}

} // namespace recording
