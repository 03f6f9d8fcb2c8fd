#pragma once

#include <cstdint>

namespace quarn::calvane {

/// The state of a queue of buffers at one moment. The figures are read one after the other while it works.
struct QueueStatistics {
    std::uint32_t capacity;      ///< Buffers that fit.
    std::uint32_t waiting;       ///< Buffers in the queue now.
    std::uint32_t highWaterMark; ///< The most buffers that were found waiting since the start.
    std::uint64_t dropped;       ///< Buffers that did not get in since the start, and were deleted.
};

} // namespace quarn::calvane
