#include "media/CodecInfo.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

#include "support/ThrownText.h"

using namespace calvane_media;
using testing::HasSubstr;
using testing::IsSupersetOf;

namespace {

using Info = std::map<std::string, std::string>;

CodecParametersPtr Make(AVCodecID id, const std::string& extraData) {
    CodecParametersPtr parameters(avcodec_parameters_alloc());
    parameters->codec_id = id;
    parameters->codec_type = avcodec_get_type(id);
    parameters->extradata =
        static_cast<std::uint8_t*>(av_mallocz(extraData.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    parameters->extradata_size = static_cast<int>(extraData.size());
    extraData.copy(reinterpret_cast<char*>(parameters->extradata), extraData.size());
    return parameters;
}

const std::string kSequence("\x67\x64\x00\x1f\xac", 5);
const std::string kPicture("\x68\xee\x3c", 3);
const std::string kRecord = std::string("\x01\x64\x00\x1f\xff\xe1\x00\x05", 8) + kSequence +
                            std::string("\x01\x00\x03", 3) + kPicture;

} // namespace

TEST(CodecInfo, KeepsAllThatADecoderAndAMuxerNeed) {
    const auto video = Make(AV_CODEC_ID_H264, kRecord);
    video->codec_tag = MKTAG('H', '2', '6', '4');
    video->format = AV_PIX_FMT_YUVJ420P;
    video->width = 1920;
    video->height = 1080;
    video->bit_rate = 8'000'000'000;
    video->profile = 100;
    video->level = 31;
    video->video_delay = 2;
    video->sample_aspect_ratio = {4, 3};
    const Info videoInfo = InfoFromCodec(*video, {1, 90000}, {30000, 1001});
    EXPECT_THAT(videoInfo, IsSupersetOf(Info{{"Codec", "h264"},
                                             {"Encoding", std::to_string(MKTAG('a', 'v', 'c', '1'))},
                                             {"FrameRateMilliHz", "29970"},
                                             {"H264ProfileAndLevel", "64001f"},
                                             {"H264SeqParamSet", "Z2QAH6w="},
                                             {"H264PicParamSet", "aO48"}}));
    const CodecInfo videoBack = CodecFromInfo(videoInfo);
    EXPECT_EQ(av_cmp_q(videoBack.timeBase, {1, 90000}), 0);
    EXPECT_EQ(av_cmp_q(videoBack.frameRate, {29970, 1000}), 0);
    EXPECT_EQ(InfoFromCodec(*videoBack.parameters, videoBack.timeBase, videoBack.frameRate), videoInfo);
    EXPECT_EQ(videoBack.parameters->bit_rate, video->bit_rate);
    EXPECT_EQ(videoBack.parameters->format, AV_PIX_FMT_YUVJ420P);
    EXPECT_EQ(videoBack.parameters->video_delay, 2);

    const auto audio = Make(AV_CODEC_ID_AAC, std::string("\x11\x90\x56", 3));
    audio->format = AV_SAMPLE_FMT_FLTP;
    audio->sample_rate = 48000;
    audio->frame_size = 1024;
    audio->initial_padding = 1024;
    audio->bits_per_coded_sample = 16;
    av_channel_layout_from_string(&audio->ch_layout, "5.1(side)");
    const Info audioInfo = InfoFromCodec(*audio, {1, 48000});
    EXPECT_THAT(audioInfo, IsSupersetOf(Info{{"NumChannels", "6"}, {"BitsPerSample", "16"}}));
    const CodecInfo audioBack = CodecFromInfo(audioInfo);
    EXPECT_EQ(InfoFromCodec(*audioBack.parameters, audioBack.timeBase), audioInfo);
    EXPECT_EQ(audioBack.parameters->initial_padding, 1024);
    EXPECT_EQ(av_channel_layout_compare(&audioBack.parameters->ch_layout, &audio->ch_layout), 0);
}

TEST(CodecInfo, FindsParameterSetsInEitherFormAndInPartsOfThem) {
    const std::string stream = std::string("\0\0\0\1", 4) + kSequence + std::string("\0\0\0\1", 4) +
                               kPicture + std::string("\0\0\1", 3);
    const Info info = InfoFromCodec(*Make(AV_CODEC_ID_H264, stream), {1, 25});
    EXPECT_EQ(info.at("H264SeqParamSet"), "Z2QAH6w=");
    EXPECT_EQ(info.at("H264PicParamSet"), "aO48");
    std::string two = kRecord + std::string("\0\4", 2) + kPicture + "\x01";
    two[two.size() - 12] = 2; // Of the pictures'.
    EXPECT_EQ(InfoFromCodec(*Make(AV_CODEC_ID_H264, two), {1, 25}).at("H264PicParamSet"), "aO48,aO48AQ==");
    // Each byte that is missing at the end takes the unit that it belonged to with it, and nothing else.
    for (std::size_t size = 1; size != kRecord.size(); ++size) {
        const Info part = InfoFromCodec(*Make(AV_CODEC_ID_H264, kRecord.substr(0, size)), {1, 25});
        EXPECT_EQ(part.count("H264SeqParamSet"), size >= 8 + kSequence.size() ? 1U : 0U) << size;
        EXPECT_EQ(part.count("H264PicParamSet"), 0U) << size;
    }
}

TEST(CodecInfo, RefusesWhatMakesNoSense) {
    const Info sound{{"Codec", "aac"}, {"TimeBase", "1/48000"}, {"NumChannels", "2"}};
    EXPECT_NO_THROW(CodecFromInfo(sound));
    for (const char* key : {"Codec", "TimeBase"}) {
        Info info = sound;
        info.erase(key);
        EXPECT_EQ(ThrownText<std::runtime_error>([&] { CodecFromInfo(info); }),
                  std::string(key) + " is missing");
    }
    for (const auto& [key, value] : Info{{"Codec", "nosuch"},
                                         {"TimeBase", "1/0"},
                                         {"NumChannels", "65"},
                                         {"SampleFreq", "-1"},
                                         {"FrameSize", "99999999999999999999"},
                                         {"BlockAlign", "4 bytes"},
                                         {"CodecTag", "4294967296"},
                                         {"ChannelLayout", "mono"},
                                         {"ExtraData", "AAA"}}) {
        Info info = sound;
        info[key] = value;
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { CodecFromInfo(info); }),
                    testing::AllOf(testing::StartsWith(key + " is not "), HasSubstr('"' + value + '"')));
    }
    for (const char* fraction : {"", "/", "25", "1/", "/25", "-1/25", "1/25/1", "0/1", "1/4294967296"}) {
        Info info = sound;
        info["TimeBase"] = fraction;
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { CodecFromInfo(info); }),
                    HasSubstr("TimeBase is not a fraction"))
            << fraction;
    }
    // A picture parameter set of two bytes, and what says that there is more than there is.
    const std::string record = "\1" + std::string(21, '\0') + std::string("\1\x22\0\1\0\2ab", 8);
    for (std::size_t size = 1; size <= record.size(); ++size) {
        const Info info = InfoFromCodec(*Make(AV_CODEC_ID_HEVC, record.substr(0, size)), {1, 25});
        EXPECT_EQ(ThrownText<std::runtime_error>([&] { CodecFromInfo(info); }) == "nothing was thrown",
                  size == record.size())
            << size;
    }
    Info large = sound;
    large["ExtraData"] = std::string(3 << 20, 'A');
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { CodecFromInfo(large); }), HasSubstr("at most 1 MiB"));
}
