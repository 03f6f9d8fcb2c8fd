#pragma once

#include <cstddef>
#include <cstdint>

namespace drenn::multi_track_recorder {

/// The same as ChecksumOf, in vector instructions that not every 32-bit ARM processor has.
std::uint64_t ChecksumWithNeon(const void* bytes, std::size_t length, std::uint64_t seed);

} // namespace drenn::multi_track_recorder
