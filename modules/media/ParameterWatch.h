#pragma once

#include <memory>
#include <string>

#include "CodecInfo.h"

struct AVBSFContext;
struct AVPacket;

namespace calvane_media {

/// Notices when the packets of a stream bring new codec parameters: as side data from the container, or, in H.264 and
/// H.265 with start codes, as parameter sets in front of key frames, or as the size of a JPEG picture.
///
/// Threads: one.
class ParameterWatch {
public:
    explicit ParameterWatch(CodecParametersPtr parameters);
    ~ParameterWatch();
    ParameterWatch(const ParameterWatch&) = delete;
    ParameterWatch& operator=(const ParameterWatch&) = delete;

    /// Those that hold for the packet that was examined last.
    const AVCodecParameters& Get() const { return *parameters_; }
    /// Returns whether they have changed with this packet.
    bool Examine(const AVPacket& packet);

private:
    struct FreeFilter {
        void operator()(AVBSFContext* filter) const;
    };

    bool IsByteStream() const;
    void MakeExtractor();
    bool Take(const AVPacket& withExtraData, const AVPacket& packet);
    bool TakeJpeg(const AVPacket& packet);
    void TakePicture(const AVPacket& packet);

    CodecParametersPtr parameters_;
    std::unique_ptr<AVBSFContext, FreeFilter> extractor_; // Null where nothing is to be extracted.
};

} // namespace calvane_media
