#include "CodecInfo.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/base64.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <vector>

#include "H264ParameterSets.h"

namespace calvane_media {

namespace {

using Info = std::map<std::string, std::string>;

constexpr std::size_t kMaxExtraDataBytes = 1 << 20;
constexpr int kMaxInt = std::numeric_limits<int>::max();
constexpr int kMaxChannels = 64;
constexpr int kMaxRate = 100'000'000;
constexpr int kMaxSide = 1 << 15; // Of a picture.
constexpr int kMaxBytes = 1 << 24;
constexpr int kMaxSamples = 1 << 20;

enum Kinds { kVideo = 1, kAudio = 2, kAny = 7 };

/// A number among the parameters that has a key of its own. It is written only if it lies in its range.
struct Number {
    const char* key;
    int AVCodecParameters::*member;
    int least;
    int most;
    int kinds;
};

constexpr std::array<Number, 11> kNumbers{{
    {"Profile", &AVCodecParameters::profile, 0, kMaxInt, kAny},
    {"Level", &AVCodecParameters::level, 0, kMaxInt, kAny},
    {"BitsPerCodedSample", &AVCodecParameters::bits_per_coded_sample, 1, 256, kAny},
    {"Width", &AVCodecParameters::width, 1, kMaxSide, kVideo},
    {"Height", &AVCodecParameters::height, 1, kMaxSide, kVideo},
    {"VideoDelay", &AVCodecParameters::video_delay, 1, 256, kVideo},
    {"SampleFreq", &AVCodecParameters::sample_rate, 1, kMaxRate, kAudio},
    {"BlockAlign", &AVCodecParameters::block_align, 1, kMaxBytes, kAudio},
    {"FrameSize", &AVCodecParameters::frame_size, 1, kMaxSamples, kAudio},
    {"InitialPadding", &AVCodecParameters::initial_padding, 1, kMaxSamples, kAudio},
    {"SeekPreroll", &AVCodecParameters::seek_preroll, 1, kMaxSamples, kAudio},
}};

int KindOf(AVMediaType type) {
    return type == AVMEDIA_TYPE_VIDEO ? kVideo : type == AVMEDIA_TYPE_AUDIO ? kAudio : 4;
}

bool IsPositive(AVRational value) {
    return value.num > 0 && value.den > 0;
}

std::string ToText(AVRational value) {
    return std::to_string(value.num) + "/" + std::to_string(value.den);
}

std::string ToBase64(const std::uint8_t* data, std::size_t size) {
    std::vector<char> text(AV_BASE64_SIZE(size));
    return av_base64_encode(text.data(), static_cast<int>(text.size()), data, static_cast<int>(size));
}

/// Several parameter sets are separated by commas, as in SDP.
std::string ToBase64(const std::vector<std::string>& units) {
    std::string text;
    for (const std::string& unit : units) {
        text += (text.empty() ? "" : ",");
        text += ToBase64(reinterpret_cast<const std::uint8_t*>(unit.data()), unit.size());
    }
    return text;
}

void AddIfKnown(Info& info, const char* key, const char* value) {
    if (value != nullptr && *value != '\0') {
        info[key] = value;
    }
}

void AddVideo(Info& info, const AVCodecParameters& parameters, AVRational frameRate) {
    AddIfKnown(info, "PixelFormat", av_get_pix_fmt_name(static_cast<AVPixelFormat>(parameters.format)));
    if (IsPositive(parameters.sample_aspect_ratio)) {
        info["SampleAspectRatio"] = ToText(parameters.sample_aspect_ratio);
    }
    const std::int64_t milliHz = IsPositive(frameRate) ? av_rescale(1000, frameRate.num, frameRate.den) : 0;
    if (milliHz > 0 && milliHz <= kMaxInt) {
        info["FrameRateMilliHz"] = std::to_string(milliHz);
    }
    if (parameters.codec_id == AV_CODEC_ID_H264 && parameters.extradata_size > 0) {
        const H264ParameterSets sets =
            FindH264ParameterSets(parameters.extradata, static_cast<std::size_t>(parameters.extradata_size));
        AddIfKnown(info, "H264ProfileAndLevel", sets.profileAndLevel.c_str());
        AddIfKnown(info, "H264SeqParamSet", ToBase64(sets.sequence).c_str());
        AddIfKnown(info, "H264PicParamSet", ToBase64(sets.picture).c_str());
    }
}

void AddAudio(Info& info, const AVCodecParameters& parameters) {
    info["BitsPerSample"] = std::to_string(BitsPerSample(parameters));
    if (parameters.ch_layout.nb_channels > 0) {
        info["NumChannels"] = std::to_string(parameters.ch_layout.nb_channels);
    }
    AddIfKnown(info, "SampleFormat", av_get_sample_fmt_name(static_cast<AVSampleFormat>(parameters.format)));
    std::array<char, 256> layout{};
    if (av_channel_layout_describe(&parameters.ch_layout, layout.data(), layout.size()) > 0 &&
        parameters.ch_layout.order != AV_CHANNEL_ORDER_UNSPEC) {
        AddIfKnown(info, "ChannelLayout", layout.data());
    }
}

/// Reads the values of an info map, and says which of them makes no sense.
class InfoReader {
public:
    explicit InfoReader(const Info& info) : info_(info) {}

    const std::string* Find(const char* key) const {
        const auto found = info_.find(key);
        return found != info_.end() ? &found->second : nullptr;
    }
    const std::string& Get(const char* key) const {
        const std::string* const value = Find(key);
        if (value == nullptr) {
            throw std::runtime_error(std::string(key) + " is missing");
        }
        return *value;
    }
    [[noreturn]] static void Refuse(const char* key, const std::string& what, const std::string& value) {
        throw std::runtime_error(std::string(key) + " is not " + what + ": \"" + value.substr(0, 64) + "\"");
    }
    /// `absent` if there is no such key.
    std::int64_t GetNumber(const char* key, std::int64_t least, std::int64_t most,
                           std::int64_t absent) const {
        const std::string* const text = Find(key);
        if (text == nullptr) {
            return absent;
        }
        const auto number = ParseNumber(*text);
        if (!number || *number < least || *number > most) {
            Refuse(key, "a number from " + std::to_string(least) + " to " + std::to_string(most), *text);
        }
        return *number;
    }
    /// A fraction of positive numbers.
    AVRational GetFraction(const char* key) const {
        const std::string& text = Get(key);
        const std::size_t slash = text.find('/');
        const int over = ParsePositive(text.substr(0, slash));
        const int under = slash != std::string::npos ? ParsePositive(text.substr(slash + 1)) : 0;
        if (over == 0 || under == 0) {
            Refuse(key, "a fraction of positive numbers", text);
        }
        return {over, under};
    }

private:
    /// 0 for what is no positive number.
    static int ParsePositive(const std::string& text) {
        const std::int64_t number = ParseNumber(text).value_or(0);
        return number > 0 && number <= kMaxInt ? static_cast<int>(number) : 0;
    }
    static std::optional<std::int64_t> ParseNumber(const std::string& text) {
        std::int64_t number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc() || end != text.data() + text.size()) {
            return std::nullopt;
        }
        return number;
    }

    const Info& info_;
};

/// Whether the arrays of an HEVCDecoderConfigurationRecord (ISO/IEC 14496-15) end within it. The library's filter believes
/// what they say of their size, and asks for memory until there is none.
bool IsWholeHevcRecord(const std::uint8_t* at, std::size_t size) {
    constexpr std::size_t kHeader = 22;
    const std::uint8_t* const end = at + size;
    const auto take = [&](int bytes) {
        unsigned int value = 0;
        for (; bytes != 0 && at != end; --bytes) {
            value = value << 8U | *at++;
        }
        return bytes == 0 ? std::optional(value) : std::nullopt;
    };
    at += std::min(size, kHeader);
    auto arrays = take(1);
    for (; arrays && *arrays != 0; --*arrays) {
        const bool hasType = take(1).has_value();
        auto units = take(2);
        for (; hasType && units && *units != 0; --*units) {
            const auto length = take(2);
            if (!length || static_cast<std::size_t>(end - at) < *length) {
                return false;
            }
            at += *length;
        }
        if (!units) {
            return false;
        }
    }
    return arrays.has_value();
}

bool HasStartCode(const std::vector<std::uint8_t>& bytes) {
    return bytes[0] == 0 && bytes[1] == 0 && bytes[2] <= 1;
}

void ReadExtraData(const InfoReader& info, AVCodecParameters& parameters) {
    static constexpr char kKey[] = "ExtraData";
    const std::string* const text = info.Find(kKey);
    if (text == nullptr) {
        return;
    }
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(AV_BASE64_DECODE_SIZE(text->size())) + 3);
    const int size = bytes.size() <= kMaxExtraDataBytes
                         ? av_base64_decode(bytes.data(), text->c_str(), static_cast<int>(bytes.size()))
                         : -1;
    // The library ends at the first padding; what is more is not what was written.
    if (size < 0 || ToBase64(bytes.data(), static_cast<std::size_t>(size)) != *text) {
        InfoReader::Refuse(kKey, "base64 of at most 1 MiB", *text);
    }
    const auto length = static_cast<std::size_t>(size);
    if (parameters.codec_id == AV_CODEC_ID_HEVC && length > 0 && !HasStartCode(bytes) &&
        !IsWholeHevcRecord(bytes.data(), length)) {
        InfoReader::Refuse(kKey, "a whole HEVC configuration record", *text);
    }
    parameters.extradata = static_cast<std::uint8_t*>(av_mallocz(length + AV_INPUT_BUFFER_PADDING_SIZE));
    if (parameters.extradata == nullptr) {
        throw std::bad_alloc();
    }
    std::copy_n(bytes.data(), length, parameters.extradata);
    parameters.extradata_size = size;
}

void ReadChannels(const InfoReader& info, AVCodecParameters& parameters) {
    const auto channels = static_cast<int>(info.GetNumber("NumChannels", 1, kMaxChannels, 0));
    AVChannelLayout& layout = parameters.ch_layout;
    const std::string* const name = info.Find("ChannelLayout");
    if (name == nullptr) {
        if (channels != 0) {
            av_channel_layout_default(&layout, channels);
        }
        return;
    }
    if (name->size() > 256 || av_channel_layout_from_string(&layout, name->c_str()) < 0 ||
        layout.nb_channels != channels) {
        InfoReader::Refuse("ChannelLayout", "a layout of " + std::to_string(channels) + " channels", *name);
    }
}

void ReadNumbers(const InfoReader& info, AVCodecParameters& parameters) {
    const int kind = KindOf(parameters.codec_type);
    for (const Number& number : kNumbers) {
        if ((number.kinds & kind) != 0) {
            int& value = parameters.*number.member;
            value = static_cast<int>(info.GetNumber(number.key, number.least, number.most, value));
        }
    }
    parameters.bit_rate = info.GetNumber("Bitrate", 0, std::numeric_limits<std::int64_t>::max() / 2, 0);
    parameters.codec_tag = static_cast<std::uint32_t>(
        info.GetNumber("CodecTag", 0, std::numeric_limits<std::uint32_t>::max(), 0));
}

/// The formats of pixels and samples by their names; one that this version of the library does not have is not known.
void ReadFormat(const InfoReader& info, AVCodecParameters& parameters) {
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
        const std::string* const name = info.Find("PixelFormat");
        parameters.format = name != nullptr ? av_get_pix_fmt(name->c_str()) : AV_PIX_FMT_NONE;
    } else if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
        const std::string* const name = info.Find("SampleFormat");
        parameters.format = name != nullptr ? av_get_sample_fmt(name->c_str()) : AV_SAMPLE_FMT_NONE;
    }
}

} // namespace

int BitsPerSample(const AVCodecParameters& parameters) {
    const auto format = static_cast<AVSampleFormat>(parameters.format);
    for (const int bits : {av_get_bits_per_sample(parameters.codec_id), parameters.bits_per_raw_sample,
                           parameters.bits_per_coded_sample, 8 * av_get_bytes_per_sample(format)}) {
        if (bits > 0) {
            return bits;
        }
    }
    return 16;
}

unsigned int FormatCode(const AVCodecParameters& parameters) {
    const std::array<const AVCodecTag*, 3> tables{parameters.codec_type == AVMEDIA_TYPE_VIDEO
                                                      ? avformat_get_mov_video_tags()
                                                      : avformat_get_mov_audio_tags(),
                                                  nullptr};
    const unsigned int code = av_codec_get_tag(tables.data(), parameters.codec_id);
    return code != 0 ? code : parameters.codec_tag;
}

Info InfoFromCodec(const AVCodecParameters& parameters, AVRational timeBase, AVRational frameRate) {
    const AVCodecDescriptor* const codec = avcodec_descriptor_get(parameters.codec_id);
    if (codec == nullptr || !IsPositive(timeBase)) {
        throw std::runtime_error("A stream without a known codec or time base cannot be described");
    }
    Info info{{"Codec", codec->name}, {"TimeBase", ToText(timeBase)}};
    info[codec->type == AVMEDIA_TYPE_VIDEO ? "Encoding" : "Format"] = std::to_string(FormatCode(parameters));
    for (const Number& number : kNumbers) {
        const int value = parameters.*number.member;
        if ((number.kinds & KindOf(codec->type)) != 0 && value >= number.least && value <= number.most) {
            info[number.key] = std::to_string(value);
        }
    }
    if (parameters.codec_tag != 0) {
        info["CodecTag"] = std::to_string(parameters.codec_tag);
    }
    if (parameters.bit_rate > 0) {
        info["Bitrate"] = std::to_string(parameters.bit_rate);
    }
    if (parameters.extradata_size > 0) {
        info["ExtraData"] =
            ToBase64(parameters.extradata, static_cast<std::size_t>(parameters.extradata_size));
    }
    if (codec->type == AVMEDIA_TYPE_VIDEO) {
        AddVideo(info, parameters, frameRate);
    } else if (codec->type == AVMEDIA_TYPE_AUDIO) {
        AddAudio(info, parameters);
    }
    return info;
}

CodecInfo CodecFromInfo(const Info& info) {
    const InfoReader reader(info);
    const std::string& name = reader.Get("Codec");
    const AVCodecDescriptor* const codec = avcodec_descriptor_get_by_name(name.c_str());
    if (codec == nullptr) {
        InfoReader::Refuse("Codec", "the name of a codec that this build of FFmpeg knows", name);
    }
    CodecInfo result{CodecParametersPtr(avcodec_parameters_alloc())};
    if (!result.parameters) {
        throw std::bad_alloc();
    }
    result.timeBase = reader.GetFraction("TimeBase");
    AVCodecParameters& parameters = *result.parameters;
    parameters.codec_id = codec->id;
    parameters.codec_type = codec->type;
    ReadNumbers(reader, parameters);
    ReadFormat(reader, parameters);
    if (codec->type == AVMEDIA_TYPE_VIDEO) {
        if (reader.Find("SampleAspectRatio") != nullptr) {
            parameters.sample_aspect_ratio = reader.GetFraction("SampleAspectRatio");
        }
        const auto milliHz = static_cast<int>(reader.GetNumber("FrameRateMilliHz", 0, kMaxInt, 0));
        if (milliHz > 0) {
            av_reduce(&result.frameRate.num, &result.frameRate.den, milliHz, 1000, kMaxInt);
        }
    } else if (codec->type == AVMEDIA_TYPE_AUDIO) {
        ReadChannels(reader, parameters);
    }
    ReadExtraData(reader, parameters);
    return result;
}

} // namespace calvane_media
