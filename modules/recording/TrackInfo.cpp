#include "TrackInfo.h"

#include <charconv>
#include <optional>
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

const std::string& CodeKeyOf(track_type track) {
    return track == VIDEO_TRACK ? RecordingManager::kVideoEncoding : RecordingManager::kAudioBufferFormat;
}

template <typename Number>
std::optional<Number> FindNumber(const std::map<std::string, std::string>& info, const std::string& key) {
    const auto found = info.find(key);
    Number number = 0;
    if (found == info.end()) {
        return std::nullopt;
    }
    const char* const end = found->second.data() + found->second.size();
    const auto result = std::from_chars(found->second.data(), end, number);
    return result.ec == std::errc() && result.ptr == end ? std::optional(number) : std::nullopt;
}

} // namespace

std::map<std::string, std::string> MakeTrackInfo(track_type track, const BufferFormat& format) {
    std::map<std::string, std::string> info{{CodeKeyOf(track), std::to_string(format.GetFormat())}};
    for (const auto& [property, key] : PropertiesOf(track)) {
        int value = 0;
        if (format.Get(property, value)) {
            info[*key] = std::to_string(value);
        }
    }
    return info;
}

BufferFormat FormatFromTrackInfo(track_type track, const std::map<std::string, std::string>& info) {
    BufferFormat format;
    format.SetFormat(FindNumber<unsigned int>(info, CodeKeyOf(track)).value_or(0));
    for (const auto& [property, key] : PropertiesOf(track)) {
        if (const auto value = FindNumber<int>(info, *key)) {
            format.Set(property, *value);
        }
    }
    return format;
}

} // namespace recording
