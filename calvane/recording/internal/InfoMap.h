#pragma once

#include <map>
#include <string>

namespace drenn::multi_track_recorder {
class Track;
}

namespace quarn::calvane {

/// What is known of records, by keys: the info of a track, the content of a history record.
using InfoMap = std::map<std::string, std::string>;

/// The keys. RecordingManager offers them under the same names.
struct InfoKeys {
    static constexpr char kAudioBitsPerSample[] = "BitsPerSample";
    static constexpr char kAudioNumChannels[] = "NumChannels";
    static constexpr char kAudioSamplingFrequency[] = "SampleFreq";
    static constexpr char kAudioBufferFormat[] = "Format";
    static constexpr char kVideoEncoding[] = "Encoding";
    static constexpr char kVideoWidth[] = "Width";
    static constexpr char kVideoHeight[] = "Height";
    static constexpr char kVideoFrameRateMilliHz[] = "FrameRateMilliHz";
    static constexpr char kVideoBitrate[] = "Bitrate";
    static constexpr char kH264ProfileAndLevel[] = "H264ProfileAndLevel";
    static constexpr char kH264SeqParamSet[] = "H264SeqParamSet";
    static constexpr char kH264PicParamSet[] = "H264PicParamSet";
    // Of history records.
    static constexpr char kHistoryEventType[] = "EventType";
    static constexpr char kRecordingState[] = "RecordingState";
    static constexpr char kTrackType[] = "TrackType";
    static constexpr char kTrackDataPresent[] = "TrackDataPresent";
    static constexpr char kReason[] = "Reason";
};

/// As it is stored: each key and each value followed by a line feed. Throws std::invalid_argument for a key or a value
/// with a line feed.
std::string textFromInfo(const InfoMap& info);
/// Throws std::runtime_error "Format error in recorded data: ..." for a key without a value.
InfoMap infoFromText(const std::string& text);
/// That of a track's first records. Moves the read position.
InfoMap readFirstInfo(const drenn::multi_track_recorder::Track& track);
/// Throws std::out_of_range for a key that is missing, boost::bad_lexical_cast for what is no number.
int numberUnder(const InfoMap& info, const char* key);

} // namespace quarn::calvane
