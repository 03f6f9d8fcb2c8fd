#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace calvane_media {

/// The parameter sets of H.264 extradata: NAL units without start code or length, in their order.
struct H264ParameterSets {
    std::vector<std::string> sequence;
    std::vector<std::string> picture;
    std::string
        profileAndLevel; ///< profile_idc, constraint flags and level_idc in hexadecimal; empty: not known.
};

/// Reads an AVCDecoderConfigurationRecord (ISO/IEC 14496-15) or a byte stream with start codes (H.264, Annex B). Stops
/// where the data ends too early; what was read until then counts.
H264ParameterSets FindH264ParameterSets(const std::uint8_t* data, std::size_t size);

} // namespace calvane_media
