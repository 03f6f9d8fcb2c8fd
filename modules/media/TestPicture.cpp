#include "TestPicture.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <stdexcept>
#include <utility>

#include "PictureDrawing.h"
#include "calvane/config/IPluginConfiguration.h"
#include "quarn/core/Logger.h"

namespace calvane_media {

using namespace quarn::calvane;
using quarn::osa::TimeStruct;

namespace {

constexpr int kSampleRate = 48000;
constexpr std::int64_t kLongestWait = 100'000; // A stop of the pipeline waits for it.
constexpr double kPi = 3.14159265358979323846;

struct VideoCodec {
    const char* setting;
    const char* encoder;
    AVPixelFormat format;
};
constexpr std::array<VideoCodec, 3> kVideoCodecs{{{"h264", "libx264", AV_PIX_FMT_YUV420P},
                                                  {"mpeg4", "mpeg4", AV_PIX_FMT_YUV420P},
                                                  {"mjpeg", "mjpeg", AV_PIX_FMT_YUVJ420P}}};

std::string ClockText(std::int64_t time) {
    const std::time_t seconds = time / 1'000'000;
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text.data() + length, text.size() - length, ".%03dZ",
                  static_cast<int>(time % 1'000'000 / 1000));
    return text.data();
}

} // namespace

TestPicture::TestPicture(CalvaneEnv*, const IPluginConfiguration& config)
    : MultiOutputSourcePlugin(config),
      rate_(ReadNumber(config, "rate", 30, 1, 120)),
      toneHz_(ReadNumber(config, "tone.hz", 440, 0, kSampleRate / 2)),
      length_(std::int64_t{1'000'000} * ReadNumber(config, "seconds", 0, 0, 86400)),
      isRealtime_(config.GetIntOrDefault("realtime", 1) != 0),
      video_(MakeTrack("video")),
      audio_(MakeTrack("audio")) {
    if (!isRealtime_ && length_ == 0) {
        ErrorInSetting("seconds", "with realtime = 0, seconds must say how long the picture is");
    }
    OpenVideo(config);
    OpenAudio();
}

TestPicture::Track TestPicture::MakeTrack(const char* name) {
    std::unique_ptr<Source> source(CreateSource(name));
    Source& place = *source;
    return {std::move(source), MediaOutput(place), nullptr};
}

int TestPicture::ReadNumber(const IPluginConfiguration& config, const char* key, int defaultValue, int least,
                            int most) const {
    const int value = config.GetIntOrDefault(key, defaultValue);
    if (value < least || value > most) {
        ErrorInSetting(key, std::string(key) + " must be from " + std::to_string(least) + " to " +
                                std::to_string(most) + ", not " + std::to_string(value));
    }
    return value;
}

void TestPicture::OpenVideo(const IPluginConfiguration& config) {
    const int width = ReadNumber(config, "width", 1280, 64, 4096);
    const int height = ReadNumber(config, "height", 720, 64, 4096);
    const int kilobits = ReadNumber(config, "bitrate.kbit", 2000, 10, 200'000);
    const int keyFrameSeconds = ReadNumber(config, "keyframe.sec", 1, 1, 60);
    const std::string wanted = config.GetStringOrDefault("codec", "auto");
    if (width % 2 != 0 || height % 2 != 0) {
        ErrorInSetting(width % 2 != 0 ? "width" : "height", "width and height must be even");
    }
    const auto* const found =
        std::find_if(kVideoCodecs.begin(), kVideoCodecs.end(), [&wanted](const VideoCodec& each) {
            return (wanted == "auto" || wanted == each.setting) &&
                   avcodec_find_encoder_by_name(each.encoder) != nullptr;
        });
    if (found == kVideoCodecs.end()) {
        ErrorInSetting("codec", "There is no encoder here for \"" + wanted + "\"");
    }
    const AVCodec* const codec = avcodec_find_encoder_by_name(found->encoder);
    video_.encoder = MakeContext(codec);
    AVCodecContext& context = *video_.encoder;
    context.width = width;
    context.height = height;
    context.pix_fmt = found->format;
    context.time_base = {1, rate_};
    context.framerate = {rate_, 1};
    context.bit_rate = std::int64_t{1000} * kilobits;
    context.gop_size = keyFrameSeconds * rate_;
    context.max_b_frames = 0;
    context.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    Options options;
    if (found->setting == std::string("h264")) {
        options.Default("preset", "veryfast");
        options.Default("tune", "zerolatency");
        options.Default("forced-idr", "1");
    }
    OpenContext(context, *codec, options);
    Announce(video_, StreamKind::Video, context.framerate);
}

void TestPicture::OpenAudio() {
    const AVCodec* const codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (codec == nullptr) {
        Error("The library has no encoder for AAC");
    }
    audio_.encoder = MakeContext(codec);
    AVCodecContext& context = *audio_.encoder;
    context.sample_rate = kSampleRate;
    context.sample_fmt = AV_SAMPLE_FMT_FLTP;
    context.bit_rate = 64'000;
    context.time_base = {1, kSampleRate};
    context.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    av_channel_layout_default(&context.ch_layout, 1);
    Options none;
    OpenContext(context, *codec, none);
    Announce(audio_, StreamKind::Audio, {0, 1});
}

void TestPicture::Announce(Track& track, StreamKind kind, AVRational frameRate) {
    InputStream stream{0, kind, CodecParametersPtr(avcodec_parameters_alloc()), track.encoder->time_base,
                       frameRate};
    if (!stream.parameters ||
        avcodec_parameters_from_context(stream.parameters.get(), track.encoder.get()) < 0) {
        throw std::bad_alloc();
    }
    track.output.Open(std::move(stream));
}

std::int64_t TestPicture::StampOf(const Track& track) const {
    return av_rescale_q(track.next, track.encoder->time_base, {1, 1'000'000});
}

bool TestPicture::IsAtEnd(const Track& track) const {
    return length_ != 0 && StampOf(track) >= length_;
}

bool TestPicture::OnGenerateBuffer(TimeStruct& next) {
    if (ended_) {
        return false;
    }
    if (!begin_) {
        begin_ = SteadyNow();
        clock_.Begin(UtcNow() - (isRealtime_ ? 0 : length_));
        clock_.Map(0);
    }
    const bool isVideo = !IsAtEnd(video_) && (IsAtEnd(audio_) || StampOf(video_) <= StampOf(audio_));
    Track& track = isVideo ? video_ : audio_;
    if (IsAtEnd(track)) {
        return End();
    }
    const std::int64_t stamp = StampOf(track);
    const std::int64_t wait = isRealtime_ ? *begin_ + stamp - SteadyNow() : 0;
    if (wait > 0) {
        next = TimeStruct(0, static_cast<unsigned int>(std::min(wait, kLongestWait)));
        return true;
    }
    if (isRealtime_ && clock_.Follow(clock_.Map(stamp), UtcNow())) {
        logger->Warning("The clock was set; the picture's follows");
        video_.output.MarkGap(true);
        audio_.output.MarkGap(true);
    }
    const FramePtr frame = isVideo ? DrawPicture(track.next, clock_.Map(stamp)) : MakeTone(track.next);
    frame->pts = track.next;
    track.next += isVideo ? 1 : frame->nb_samples;
    Push(track, frame.get());
    return true;
}

FramePtr TestPicture::DrawPicture(std::int64_t number, std::int64_t time) const {
    const AVCodecContext& context = *video_.encoder;
    FramePtr picture = MakePicture(context.pix_fmt, context.width, context.height);
    DrawBars(*picture, number);
    const int scale = std::max(1, context.width / (26 * kGlyphWidth)); // Room for 24 characters and a margin.
    std::array<char, 24> counter{};
    std::snprintf(counter.data(), counter.size(), "%08lld", static_cast<long long>(number));
    DrawText(*picture, counter.data(), kGlyphWidth * scale, kGlyphHeight * scale, scale);
    DrawText(*picture, ClockText(time), kGlyphWidth * scale, 2 * kGlyphHeight * scale, scale);
    return picture;
}

FramePtr TestPicture::MakeTone(std::int64_t begin) const {
    const AVCodecContext& context = *audio_.encoder;
    FramePtr frame = MakeFrame();
    frame->format = context.sample_fmt;
    frame->nb_samples = context.frame_size;
    frame->sample_rate = context.sample_rate;
    if (av_channel_layout_copy(&frame->ch_layout, &context.ch_layout) < 0 ||
        av_frame_get_buffer(frame.get(), 0) < 0) {
        throw std::bad_alloc();
    }
    auto* const samples = reinterpret_cast<float*>(frame->data[0]);
    for (int i = 0; i != frame->nb_samples; ++i) {
        // The frequency is a whole number: the tone repeats itself every second.
        const auto place = static_cast<double>((begin + i) % kSampleRate);
        samples[i] = static_cast<float>(0.25 * std::sin(2 * kPi * toneHz_ * place / kSampleRate));
    }
    return frame;
}

void TestPicture::Push(Track& track, const AVFrame* frame) {
    const auto microseconds = [&track](std::int64_t stamp) {
        return av_rescale_q(stamp, track.encoder->time_base, {1, 1'000'000});
    };
    for (PacketPtr& packet : Encode(*track.encoder, frame)) {
        const std::int64_t decoding = microseconds(packet->dts);
        const std::int64_t offset = microseconds(packet->pts) - decoding;
        track.output.Push(std::move(packet), clock_.Map(decoding), offset);
    }
}

bool TestPicture::End() {
    ended_ = true;
    Push(video_, nullptr);
    Push(audio_, nullptr);
    return false;
}

} // namespace calvane_media
