#include "Codec.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include <new>
#include <stdexcept>
#include <utility>

namespace calvane_media {

namespace {

void Check(int code, const char* what) {
    if (code < 0) {
        throw std::runtime_error(std::string(what) + ": " + ErrorText(code));
    }
}

} // namespace

void FreeCodecContext::operator()(AVCodecContext* context) const {
    avcodec_free_context(&context);
}

void FreeFrame::operator()(AVFrame* frame) const {
    av_frame_free(&frame);
}

CodecContextPtr MakeContext(const AVCodec* codec) {
    CodecContextPtr context(avcodec_alloc_context3(codec));
    if (!context) {
        throw std::bad_alloc();
    }
    return context;
}

void OpenContext(AVCodecContext& context, const AVCodec& codec, Options& options) {
    const int code = avcodec_open2(&context, &codec, options.Get());
    if (code < 0) {
        throw std::runtime_error(std::string("Cannot open the codec ") + codec.name + ": " + ErrorText(code));
    }
}

FramePtr MakeFrame() {
    FramePtr frame(av_frame_alloc());
    if (!frame) {
        throw std::bad_alloc();
    }
    return frame;
}

FramePtr MakePicture(int format, int width, int height) {
    FramePtr frame = MakeFrame();
    frame->format = format;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 0) < 0) {
        throw std::bad_alloc();
    }
    return frame;
}

std::vector<PacketPtr> Encode(AVCodecContext& context, const AVFrame* frame) {
    Check(avcodec_send_frame(&context, frame), "A frame cannot be encoded");
    std::vector<PacketPtr> packets;
    for (;;) {
        PacketPtr packet = MakePacket();
        const int code = avcodec_receive_packet(&context, packet.get());
        if (code == AVERROR(EAGAIN) || code == AVERROR_EOF) {
            return packets;
        }
        Check(code, "A frame cannot be encoded");
        packets.push_back(std::move(packet));
    }
}

FramePtr DecodePicture(const AVCodecParameters& parameters, const AVPacket& packet) {
    const AVCodec* const codec = avcodec_find_decoder(parameters.codec_id);
    if (codec == nullptr) {
        throw std::runtime_error(std::string("There is no decoder for ") +
                                 avcodec_get_name(parameters.codec_id));
    }
    const CodecContextPtr context = MakeContext(codec);
    Check(avcodec_parameters_to_context(context.get(), &parameters), "A key frame cannot be decoded");
    context->thread_count = 1; // More would only wait for each other.
    Options none;
    OpenContext(*context, *codec, none);
    Check(avcodec_send_packet(context.get(), &packet), "A key frame cannot be decoded");
    Check(avcodec_send_packet(context.get(), nullptr), "A key frame cannot be decoded");
    FramePtr frame = MakeFrame();
    Check(avcodec_receive_frame(context.get(), frame.get()), "A key frame cannot be decoded");
    return frame;
}

} // namespace calvane_media
