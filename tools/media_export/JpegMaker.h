#pragma once

#include <cstdint>
#include <vector>

#include "record_source/RecordSource.h"

namespace calvane_export {

/// Makes a JPEG file (JFIF, 4:2:0) of a key frame: decodes it, and scales it to `width` pixels, 0: as it is. A record that
/// is JPEG already is returned as it is if it need not be scaled.
///
/// Errors: std::runtime_error that names the codec, when the record cannot be decoded or this build of FFmpeg has no decoder
///         for it.
std::vector<std::uint8_t> MakeJpeg(const calvane_recording::Record& keyFrame, int width);

} // namespace calvane_export
