#pragma once

#include <cstddef>
#include <cstdint>

#include "calvane/Export.h"
#include "calvane/recording/RecordingTime.h"

namespace quarn::calvane {

/// The first blob of every record: 16 bytes, as docs/reference/record-format.md has them.
struct RecordHeader {
    static constexpr std::uint8_t kVersion = 1;
    // Bits of `flags` in data records.
    static constexpr std::uint8_t kKeyFrame = 1;      ///< It can be decoded without those before it.
    static constexpr std::uint8_t kDiscontinuity = 2; ///< Data is missing in front of it.
    static constexpr std::uint8_t kHistory = 1;       ///< What history records have there.

    std::uint8_t version = kVersion;
    std::uint8_t flags = 0;
    std::uint8_t offset[6] = {}; ///< The composition offset; see setCompositionOffset.
    std::int64_t ticks = 0;      ///< In the machine's byte order; see ticksFromTime.

    /// Presentation time less decode time, in microseconds: not 0 in video with pictures that refer to later ones. Stored in
    /// 48 bits. Throws std::invalid_argument for what does not fit, which is more than four years.
    CALVANE_API void setCompositionOffset(std::int64_t microseconds);
    CALVANE_API std::int64_t compositionOffset() const;
};
static_assert(sizeof(RecordHeader) == 16, "it is stored as it lies in memory");

} // namespace quarn::calvane
