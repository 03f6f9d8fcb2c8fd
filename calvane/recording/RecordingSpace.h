#pragma once

#include <cstdint>

namespace quarn::calvane {

/// Bytes of the data tracks together, and of the history; as a limit, 0 is none.
struct RecordingSpace {
    std::uint64_t data = 0;
    std::uint64_t history = 0;

    friend bool operator==(const RecordingSpace& a, const RecordingSpace& b) {
        return a.data == b.data && a.history == b.history;
    }
    friend bool operator!=(const RecordingSpace& a, const RecordingSpace& b) { return !(a == b); }
};

} // namespace quarn::calvane
