#include "media_export/JpegMaker.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

#include "media/CodecInfo.h"

namespace calvane_export {
namespace {

using calvane_recording::Record;

constexpr int kQuality = 3 * FF_QP2LAMBDA; ///< From 1, the best, to 31.

struct FreeCodec {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FreeFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FreeScaler {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using CodecPtr = std::unique_ptr<AVCodecContext, FreeCodec>;
using FramePtr = std::unique_ptr<AVFrame, FreeFrame>;
using PacketPtr = std::unique_ptr<AVPacket, FreePacket>;

template <typename Pointer>
Pointer Require(Pointer pointer) {
    if (!pointer) {
        throw std::bad_alloc();
    }
    return pointer;
}

CodecPtr NewCodec(const AVCodec* codec, const char* what, AVCodecID id) {
    if (codec == nullptr) {
        throw std::runtime_error(std::string("This build of FFmpeg has no ") + what + " for " +
                                 avcodec_get_name(id));
    }
    return Require(CodecPtr(avcodec_alloc_context3(codec)));
}

FramePtr Decode(const Record& record, const AVCodecParameters& parameters) {
    const AVCodecID id = parameters.codec_id;
    const CodecPtr decoder = NewCodec(avcodec_find_decoder(id), "decoder", id);
    decoder->thread_count = 1; // Several only decode several pictures faster.
    FramePtr frame = Require(FramePtr(av_frame_alloc()));
    const PacketPtr packet = Require(PacketPtr(av_packet_alloc()));
    packet->data = const_cast<std::uint8_t*>(record.bytes.data()); // A decoder only reads it.
    packet->size = static_cast<int>(record.size);
    packet->flags = AV_PKT_FLAG_KEY;
    if (avcodec_parameters_to_context(decoder.get(), &parameters) < 0 ||
        avcodec_open2(decoder.get(), nullptr, nullptr) < 0 ||
        avcodec_send_packet(decoder.get(), packet.get()) < 0 ||
        avcodec_send_packet(decoder.get(), nullptr) < 0 ||
        avcodec_receive_frame(decoder.get(), frame.get()) < 0 || frame->width < 1 || frame->height < 1) {
        throw std::runtime_error(std::string("The key frame cannot be decoded as ") + avcodec_get_name(id));
    }
    return frame;
}

/// As encoders of JPEG want it, with the full range of values.
FramePtr Convert(const AVFrame& from, int width) {
    FramePtr to = Require(FramePtr(av_frame_alloc()));
    to->format = AV_PIX_FMT_YUVJ420P;
    to->width = width == 0 ? from.width : width;
    to->height = width == 0 ? from.height
                            : std::max(1, static_cast<int>(std::int64_t{from.height} * width / from.width));
    const std::unique_ptr<SwsContext, FreeScaler> scaler(
        sws_getContext(from.width, from.height, static_cast<AVPixelFormat>(from.format), to->width,
                       to->height, AV_PIX_FMT_YUVJ420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (scaler == nullptr || av_frame_get_buffer(to.get(), 0) < 0) {
        throw std::runtime_error("The key frame cannot be scaled to " + std::to_string(to->width) + "x" +
                                 std::to_string(to->height));
    }
    sws_scale(scaler.get(), from.data, from.linesize, 0, from.height, to->data, to->linesize);
    return to;
}

std::vector<std::uint8_t> Encode(AVFrame& frame) {
    const CodecPtr encoder = NewCodec(avcodec_find_encoder(AV_CODEC_ID_MJPEG), "encoder", AV_CODEC_ID_MJPEG);
    const PacketPtr packet = Require(PacketPtr(av_packet_alloc()));
    encoder->width = frame.width;
    encoder->height = frame.height;
    encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
    encoder->time_base = {1, 1};
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = kQuality;
    encoder->thread_count = 1;
    frame.quality = kQuality;
    frame.pts = 0;
    if (avcodec_open2(encoder.get(), nullptr, nullptr) < 0 || avcodec_send_frame(encoder.get(), &frame) < 0 ||
        avcodec_send_frame(encoder.get(), nullptr) < 0 ||
        avcodec_receive_packet(encoder.get(), packet.get()) < 0) {
        throw std::runtime_error("The key frame cannot be encoded as JPEG");
    }
    return {packet->data, packet->data + packet->size};
}

} // namespace

std::vector<std::uint8_t> MakeJpeg(const Record& keyFrame, int width) {
    const calvane_media::CodecInfo codec = calvane_media::CodecFromInfo(*keyFrame.info);
    const AVCodecParameters& parameters = *codec.parameters;
    if (parameters.codec_type != AVMEDIA_TYPE_VIDEO) {
        throw std::runtime_error(std::string(avcodec_get_name(parameters.codec_id)) + " is no video");
    }
    if (parameters.codec_id == AV_CODEC_ID_MJPEG && (width == 0 || width == parameters.width)) {
        const auto* const bytes = keyFrame.bytes.data();
        return {bytes, bytes + keyFrame.size};
    }
    const FramePtr picture = Decode(keyFrame, parameters);
    return Encode(*Convert(*picture, width));
}

} // namespace calvane_export
