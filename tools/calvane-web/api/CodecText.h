#pragma once

#include <string>
#include <vector>

#include "media/CodecInfo.h"

namespace calvane_web {

/// What browsers want to know of a codec before they play it (RFC 6381): "avc1.64001f", "mp4a.40.2". Empty for one that has no
/// such text, or whose header is not what it should be.
std::string CodecText(const AVCodecParameters& parameters);

/// video/mp4; codecs="...", empty when one of them has no text.
std::string MimeText(const std::vector<const calvane_media::CodecInfo*>& codecs);

} // namespace calvane_web
