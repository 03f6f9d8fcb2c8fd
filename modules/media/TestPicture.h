#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Codec.h"
#include "InputStream.h"
#include "Library.h"
#include "MediaOutput.h"
#include "PacketClock.h"
#include "calvane/graph/MultiOutputSourcePlugin.h"

namespace quarn::calvane {
class CalvaneEnv;
}

namespace calvane_media {

/// A camera for those who have none: a moving picture with the number of the frame and its time in UTC, and a tone,
/// encoded here. Buffers are those of MediaSource (see MediaOutput). Outputs: "video" and "audio".
///
/// Settings: "width" (1280) and "height" (720), even; "rate" (30) in frames a second; "bitrate.kbit" (2000);
///           "keyframe.sec" (1): from one key frame to the next; "codec" (auto): h264, mpeg4 or mjpeg, auto: the first of
///           them that there is an encoder for; "tone.hz" (440), 0: silence; "seconds" (0): end after so many, 0: never;
///           "realtime" (1), 0: as fast as possible, the last frame being of now.
///
/// Threads:   the pipeline's; encoders may have some of their own.
/// Errors:    construction throws for settings that make no sense and when there is no encoder.
class TestPicture : public quarn::calvane::MultiOutputSourcePlugin {
public:
    TestPicture(quarn::calvane::CalvaneEnv* env, const quarn::calvane::IPluginConfiguration& config);

    bool OnGenerateBuffer(quarn::osa::TimeStruct& next) override;

private:
    struct Track {
        std::unique_ptr<quarn::calvane::Source> source;
        MediaOutput output;
        CodecContextPtr encoder;
        std::int64_t next = 0; // Stamp of the next frame, in the encoder's time base.
    };

    int ReadNumber(const quarn::calvane::IPluginConfiguration& config, const char* key, int defaultValue,
                   int least, int most) const;
    void OpenVideo(const quarn::calvane::IPluginConfiguration& config);
    void OpenAudio();
    static void Announce(Track& track, StreamKind kind, AVRational frameRate);
    Track MakeTrack(const char* name);
    std::int64_t StampOf(const Track& track) const;
    bool IsAtEnd(const Track& track) const;
    FramePtr DrawPicture(std::int64_t number, std::int64_t time) const;
    FramePtr MakeTone(std::int64_t begin) const;
    void Push(Track& track, const AVFrame* frame);
    bool End();

    const LibraryLog libraryLog_;
    const int rate_;
    const int toneHz_;
    const std::int64_t length_; // In microseconds; 0: without end.
    const bool isRealtime_;
    Track video_;
    Track audio_;
    PacketClock clock_;
    std::optional<std::int64_t> begin_; // By the steady clock.
    bool ended_ = false;
};

} // namespace calvane_media
