#include "JpegSnapshot.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <map>
#include <memory>
#include <stdexcept>
#include <utility>

#include "PacketData.h"
#include "calvane/buffer/Buffer.h"
#include "calvane/config/IPluginConfiguration.h"
#include "calvane/recording/RecordingManager.h"
#include "quarn/core/Logger.h"

namespace calvane_media {

using namespace quarn::calvane;

namespace {

struct FreeScaler {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};

std::int64_t TimeOf(const Buffer& buffer) {
    return std::int64_t{buffer.GetTimestamp().seconds} * 1'000'000 + buffer.GetTimestamp().microseconds;
}

PacketPtr CopyToPacket(const Buffer& buffer) {
    PacketPtr packet = MakePacket();
    if (av_new_packet(packet.get(), static_cast<int>(buffer.GetLength())) < 0) {
        throw std::bad_alloc();
    }
    std::copy_n(buffer.GetData(), buffer.GetLength(), packet->data);
    packet->flags |= AV_PKT_FLAG_KEY;
    return packet;
}

} // namespace

JpegSnapshot::JpegSnapshot(CalvaneEnv*, const IPluginConfiguration& config)
    : BasicFilterPlugin(config),
      interval_(std::int64_t{1'000'000} * ReadNumber(config, "interval.sec", 10, 0, 86400)),
      quality_(ReadNumber(config, "quality", 80, 1, 100)),
      width_(ReadNumber(config, "width", 0, 0, 16384)) {}

int JpegSnapshot::ReadNumber(const IPluginConfiguration& config, const char* key, int defaultValue, int least,
                             int most) const {
    const int value = config.GetIntOrDefault(key, defaultValue);
    if (value < least || value > most) {
        ErrorInSetting(key, std::string(key) + " must be from " + std::to_string(least) + " to " +
                                std::to_string(most) + ", not " + std::to_string(value));
    }
    return value;
}

void JpegSnapshot::OnBuffer(const Sink*, Buffer* buffer) {
    const std::unique_ptr<Buffer> owned(buffer);
    if (!IsDue(*owned)) {
        return;
    }
    try {
        MakeSnapshot(*owned);
        failed_ = false;
    } catch (const std::runtime_error& problem) {
        if (!std::exchange(failed_, true)) {
            logger->Warning("No snapshot: %s", problem.what());
        }
    }
}

/// A clock that was set back makes it due as well.
bool JpegSnapshot::IsDue(const Buffer& buffer) const {
    const std::int64_t time = TimeOf(buffer);
    return buffer.GetMetadata().GetInt("KeyFrame") != 0 &&
           (last_ == 0 || time < last_ || time - last_ >= interval_);
}

void JpegSnapshot::MakeSnapshot(const Buffer& buffer) {
    const std::string& text = buffer.GetMetadata().GetString("info");
    if (text.empty()) {
        throw std::runtime_error("the key frame has no metadata \"info\" that says what its codec is");
    }
    if (text != infoText_) {
        std::map<std::string, std::string> info;
        RecordingManager::deserializeTrackInfo(text, info);
        codec_ = CodecFromInfo(info);
        infoText_ = text;
    }
    const FramePtr picture = Scale(*DecodePicture(*codec_.parameters, *CopyToPacket(buffer)));
    BufferFormat format;
    format.SetFormat(MKTAG('j', 'p', 'e', 'g'));
    format.Set("width", picture->width);
    format.Set("height", picture->height);
    auto data = std::make_unique<PacketData>(Compress(*picture));
    auto jpeg = std::make_unique<Buffer>(data.release(), format);
    jpeg->SetTimestamp(buffer.GetTimestamp());
    last_ = TimeOf(buffer);
    source->PushBuffer(jpeg.release());
}

/// To the wanted width, and to the full range of values that JPEG has.
FramePtr JpegSnapshot::Scale(const AVFrame& picture) const {
    const int width = width_ != 0 ? width_ : picture.width;
    const int height = std::max(1, static_cast<int>(av_rescale(picture.height, width, picture.width)));
    const std::unique_ptr<SwsContext, FreeScaler> scaler(
        sws_getContext(picture.width, picture.height, static_cast<AVPixelFormat>(picture.format), width,
                       height, AV_PIX_FMT_YUVJ420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!scaler) {
        throw std::runtime_error("the picture's format cannot be converted");
    }
    FramePtr scaled = MakePicture(AV_PIX_FMT_YUVJ420P, width, height);
    sws_scale(scaler.get(), picture.data, picture.linesize, 0, picture.height, scaled->data,
              scaled->linesize);
    return scaled;
}

PacketPtr JpegSnapshot::Compress(const AVFrame& picture) const {
    const AVCodec* const codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    if (codec == nullptr) {
        throw std::runtime_error("the library has no encoder for JPEG");
    }
    const CodecContextPtr context = MakeContext(codec);
    context->width = picture.width;
    context->height = picture.height;
    context->pix_fmt = AV_PIX_FMT_YUVJ420P;
    context->time_base = {1, 1};
    context->thread_count = 1;
    context->flags |= AV_CODEC_FLAG_QSCALE;
    context->global_quality = FF_QP2LAMBDA * (2 + (100 - quality_) * 29 / 99); // 2 is the best, 31 the worst.
    Options none;
    OpenContext(*context, *codec, none);
    const FramePtr frame(av_frame_clone(&picture));
    if (!frame) {
        throw std::bad_alloc();
    }
    frame->quality = context->global_quality;
    frame->pts = 0;
    std::vector<PacketPtr> packets = Encode(*context, frame.get());
    if (packets.empty()) {
        packets = Encode(*context, nullptr);
    }
    if (packets.empty()) {
        throw std::runtime_error("the encoder gave no picture");
    }
    return std::move(packets.front());
}

} // namespace calvane_media
