#include "api/CodecText.h"

extern "C" {
#include <libavcodec/codec_id.h>
}

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <string_view>

namespace calvane_web {
namespace {

using Bytes = std::basic_string_view<std::uint8_t>;

Bytes HeaderOf(const AVCodecParameters& parameters) {
    return parameters.extradata == nullptr
               ? Bytes()
               : Bytes(parameters.extradata, static_cast<std::size_t>(parameters.extradata_size));
}

/// Two small digits.
std::string HexByte(std::uint8_t byte) {
    std::array<char, 4> text{};
    std::snprintf(text.data(), text.size(), "%02x", byte);
    return text.data();
}

/// Capital digits, without leading zeros.
std::string HexNumber(std::uint32_t number) {
    std::array<char, 12> text{};
    std::snprintf(text.data(), text.size(), "%X", number);
    return text.data();
}

/// Profile, constraints and level: from the configuration record of ISO/IEC 14496-15, 5.3.3.1, or from the sequence parameter
/// set behind a start code.
std::string H264Text(Bytes header) {
    std::size_t at = std::string_view::npos;
    if (header.size() >= 4 && header[0] == 1) {
        at = 1;
    }
    for (std::size_t i = 0; at == std::string_view::npos && i + 6 < header.size(); ++i) {
        const bool isStart = header[i] == 0 && header[i + 1] == 0 && header[i + 2] == 1;
        if (isStart && (header[i + 3] & 0x1F) == 7) {
            at = i + 4;
        }
    }
    return at == std::string_view::npos
               ? ""
               : "avc1." + HexByte(header[at]) + HexByte(header[at + 1]) + HexByte(header[at + 2]);
}

/// ISO/IEC 14496-15, annex E.3, from the configuration record (8.3.3.1).
std::string H265Text(Bytes header) {
    if (header.size() < 13 || header[0] != 1) {
        return "";
    }
    constexpr std::array<const char*, 4> kSpaces{"", "A", "B", "C"};
    std::uint32_t compatible = 0; // In the reverse order of bits.
    for (unsigned int bit = 0; bit != 32; ++bit) {
        compatible |= static_cast<std::uint32_t>(header[2 + bit / 8] >> (7 - bit % 8) & 1) << bit;
    }
    std::string text = std::string("hev1.") + kSpaces.at(header[1] >> 6) + std::to_string(header[1] & 0x1F) +
                       "." + HexNumber(compatible) + ((header[1] & 0x20) != 0 ? ".H" : ".L") +
                       std::to_string(header[12]);
    std::size_t last = 11; // Constraints, without the zero bytes behind.
    while (last > 5 && header[last] == 0) {
        --last;
    }
    for (std::size_t i = 6; i <= last; ++i) {
        text += "." + HexNumber(header[i]);
    }
    return text;
}

/// The audio object type of ISO/IEC 14496-3, 1.6.2.1.
std::string AacText(Bytes header) {
    if (header.empty()) {
        return "mp4a.40.2";
    }
    int type = header[0] >> 3;
    if (type == 31) {
        type = header.size() < 2 ? 0 : 32 + ((header[0] & 7) << 3 | header[1] >> 5);
    }
    return type == 0 ? "" : "mp4a.40." + std::to_string(type);
}

} // namespace

std::string CodecText(const AVCodecParameters& parameters) {
    switch (parameters.codec_id) {
        case AV_CODEC_ID_H264:
            return H264Text(HeaderOf(parameters));
        case AV_CODEC_ID_HEVC:
            return H265Text(HeaderOf(parameters));
        case AV_CODEC_ID_AAC:
            return AacText(HeaderOf(parameters));
        case AV_CODEC_ID_MP3:
            return "mp4a.6B";
        case AV_CODEC_ID_OPUS:
            return "opus";
        case AV_CODEC_ID_FLAC:
            return "flac";
        case AV_CODEC_ID_AC3:
            return "ac-3";
        case AV_CODEC_ID_EAC3:
            return "ec-3";
        default:
            return "";
    }
}

std::string MimeText(const std::vector<const calvane_media::CodecInfo*>& codecs) {
    std::string all;
    bool hasVideo = false;
    for (const calvane_media::CodecInfo* const codec : codecs) {
        const std::string text = CodecText(*codec->parameters);
        if (text.empty()) {
            return "";
        }
        hasVideo = hasVideo || codec->parameters->codec_type == AVMEDIA_TYPE_VIDEO;
        all += (all.empty() ? "" : ", ") + text;
    }
    return all.empty() ? "" : std::string(hasVideo ? "video" : "audio") + "/mp4; codecs=\"" + all + "\"";
}

} // namespace calvane_web
