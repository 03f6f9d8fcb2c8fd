#pragma once

#include <cstdint>
#include <string>

#include "Codec.h"
#include "CodecInfo.h"
#include "Library.h"
#include "calvane/graph/BasicFilterPlugin.h"

namespace quarn::calvane {
class CalvaneEnv;
}

namespace calvane_media {

/// Makes a JPEG picture of a key frame every so often, for OverwriteFileSink for example. It takes the video buffers of
/// MediaSource and TestPicture. A picture has the timestamp of its key frame, and "width" and "height" in its format.
///
/// Settings: "interval.sec" (10): from one picture to the next, by the buffers' time, at least; 0: of every key frame;
///           "quality" (80), from 1 to 100; "width" (0) in pixels, 0: as it comes.
///
/// Threads:   one. It decodes and encodes on it, which takes some milliseconds: a queue in front keeps that from what the
///            source also feeds.
/// Errors:    a key frame that no picture can be made of is logged and left out; the next one is tried.
class JpegSnapshot : public quarn::calvane::BasicFilterPlugin {
public:
    JpegSnapshot(quarn::calvane::CalvaneEnv* env, const quarn::calvane::IPluginConfiguration& config);

    void OnBuffer(const quarn::calvane::Sink* sink, quarn::calvane::Buffer* buffer) override;

private:
    int ReadNumber(const quarn::calvane::IPluginConfiguration& config, const char* key, int defaultValue,
                   int least, int most) const;
    bool IsDue(const quarn::calvane::Buffer& buffer) const;
    void MakeSnapshot(const quarn::calvane::Buffer& buffer);
    FramePtr Scale(const AVFrame& picture) const;
    PacketPtr Compress(const AVFrame& picture) const;

    const LibraryLog libraryLog_;
    const std::int64_t interval_; // In microseconds.
    const int quality_;
    const int width_;
    std::int64_t last_ = 0; // Time of the last snapshot; 0: none yet.
    std::string infoText_;
    CodecInfo codec_; // From it.
    bool failed_ = false;
};

} // namespace calvane_media
