#pragma once

#include <map>
#include <string>

#include "calvane/buffer/BufferFormat.h"
#include "calvane/recording/track_type.h"

namespace recording {

/// The info map of a track, from what its buffers' format says. Format code and properties go in under these keys:
///
///     video     code Encoding; width Width, height Height, bitrate Bitrate, frame.rate.millihz FrameRateMilliHz
///     audio     code Format; bits.per.sample BitsPerSample, channels NumChannels, sample.freq SampleFreq
///     metadata  code Format
///
/// A property that a format does not have is left out.
std::map<std::string, std::string> MakeTrackInfo(quarn::calvane::track_type track,
                                                 const quarn::calvane::BufferFormat& format);
/// The other way round. What is no number is left out.
quarn::calvane::BufferFormat FormatFromTrackInfo(quarn::calvane::track_type track,
                                                 const std::map<std::string, std::string>& info);

} // namespace recording
