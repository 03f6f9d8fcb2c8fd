#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Library.h"

struct AVCodec;
struct AVCodecContext;
struct AVCodecParameters;
struct AVFrame;

namespace calvane_media {

struct FreeCodecContext {
    void operator()(AVCodecContext* context) const;
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, FreeCodecContext>;

struct FreeFrame {
    void operator()(AVFrame* frame) const;
};
using FramePtr = std::unique_ptr<AVFrame, FreeFrame>;

/// A context that is not open yet. `codec` may be null. Throws std::bad_alloc.
CodecContextPtr MakeContext(const AVCodec* codec);
/// Throws std::runtime_error that names the codec.
void OpenContext(AVCodecContext& context, const AVCodec& codec, Options& options);
/// Without memory for the content. Throws std::bad_alloc.
FramePtr MakeFrame();
/// Of this format and size. Throws std::bad_alloc.
FramePtr MakePicture(int format, int width, int height);

/// What an encoder makes of a frame; of null, what it still keeps. Throws std::runtime_error.
std::vector<PacketPtr> Encode(AVCodecContext& context, const AVFrame* frame);
/// The picture of a packet that can be decoded by itself. Throws std::runtime_error.
FramePtr DecodePicture(const AVCodecParameters& parameters, const AVPacket& packet);

} // namespace calvane_media
