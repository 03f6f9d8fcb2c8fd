#include "H264ParameterSets.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace calvane_media {

namespace {

constexpr int kSequenceParameterSet = 7;
constexpr int kPictureParameterSet = 8;

void Add(H264ParameterSets& sets, const std::uint8_t* begin, const std::uint8_t* end) {
    if (begin == end) {
        return;
    }
    const int type = *begin & 0x1f;
    if (type == kSequenceParameterSet) {
        sets.sequence.emplace_back(begin, end);
    } else if (type == kPictureParameterSet) {
        sets.picture.emplace_back(begin, end);
    }
}

/// Reads so many NAL units with lengths of two bytes; returns where they end, or `end` if that comes too early.
const std::uint8_t* ReadCounted(H264ParameterSets& sets, const std::uint8_t* at, const std::uint8_t* end,
                                int count) {
    for (; count != 0; --count) {
        if (end - at < 2) {
            return end;
        }
        const int length = at[0] << 8 | at[1];
        at += 2;
        if (end - at < length) {
            return end;
        }
        Add(sets, at, at + length);
        at += length;
    }
    return at;
}

void ReadConfigurationRecord(H264ParameterSets& sets, const std::uint8_t* data, const std::uint8_t* end) {
    const std::uint8_t* const pictures = ReadCounted(sets, data + 6, end, data[5] & 0x1f);
    if (pictures != end) {
        ReadCounted(sets, pictures + 1, end, *pictures);
    }
}

void ReadByteStream(H264ParameterSets& sets, const std::uint8_t* at, const std::uint8_t* end) {
    static constexpr std::array<std::uint8_t, 3> kStartCode{0, 0, 1};
    at = std::search(at, end, kStartCode.begin(), kStartCode.end());
    while (at != end) {
        at += kStartCode.size();
        const std::uint8_t* const next = std::search(at, end, kStartCode.begin(), kStartCode.end());
        const std::uint8_t* last = next;
        while (last != at && last[-1] == 0) { // Zeros behind a NAL unit belong to the next start code.
            --last;
        }
        Add(sets, at, last);
        at = next;
    }
}

} // namespace

H264ParameterSets FindH264ParameterSets(const std::uint8_t* data, std::size_t size) {
    H264ParameterSets sets;
    const std::uint8_t* const end = data + size;
    if (size >= 7 && data[0] == 1) {
        ReadConfigurationRecord(sets, data, end);
    } else {
        ReadByteStream(sets, data, end);
    }
    if (!sets.sequence.empty() && sets.sequence[0].size() >= 4) {
        const auto byte = [&sets](std::size_t i) { return static_cast<unsigned char>(sets.sequence[0][i]); };
        std::array<char, 7> text{};
        std::snprintf(text.data(), text.size(), "%02x%02x%02x", byte(1), byte(2), byte(3));
        sets.profileAndLevel = text.data();
    }
    return sets;
}

} // namespace calvane_media
