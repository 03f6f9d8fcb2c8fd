#pragma once

extern "C" {
#include <libavcodec/codec_par.h>
#include <libavutil/rational.h>
}

#include <map>
#include <memory>
#include <string>

namespace calvane_media {

struct FreeParameters {
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
};
using CodecParametersPtr = std::unique_ptr<AVCodecParameters, FreeParameters>;

/// What a decoder or a muxer needs to know of a recorded stream.
struct CodecInfo {
    CodecParametersPtr parameters;
    AVRational timeBase{0, 1};  ///< Of the input's time stamps; both parts are positive.
    AVRational frameRate{0, 1}; ///< 0/1: not known.
};

/// The info map of a track (docs/reference/record-format.md), from the codec of its stream. What is not known is left
/// out; `Encoding` or `Format` is always there.
///
/// Errors: std::runtime_error if `timeBase` is not positive or the codec has no name.
std::map<std::string, std::string> InfoFromCodec(const AVCodecParameters& parameters, AVRational timeBase,
                                                 AVRational frameRate = {0, 1});

/// The reverse. Keys that it does not know are ignored, and so is `Encoding` or `Format`, which the codec's name stands
/// for. The map may come from a card that somebody else has written to: all sizes and numbers are limited.
///
/// Errors: std::runtime_error "KEY is missing" for `Codec` and `TimeBase`, "KEY is not ..." with the value for what
///         makes no sense.
CodecInfo CodecFromInfo(const std::map<std::string, std::string>& info);

/// Of one sample of one channel; of a codec that has no fixed number what it is decoded to.
int BitsPerSample(const AVCodecParameters& parameters);

/// The code of a buffer format: the FourCC that the codec has in ISO media, else its tag, else 0.
unsigned int FormatCode(const AVCodecParameters& parameters);

} // namespace calvane_media
