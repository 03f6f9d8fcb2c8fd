#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace quarn::calvane {
class RecordingManager;
}

/// How a media file becomes a recording.
struct RecordingPlan {
    std::int64_t start = 0; ///< When it was 0 in the file, in microseconds since 1970.
    /// Packets that are left out, by the time in the file in microseconds, as if data had been lost.
    std::function<bool(std::int64_t time)> isLost = [](std::int64_t) { return false; };
};

/// Writes every packet of a media file to the tracks of the recorder that runs in this process, as a producer does. Returns
/// the number of packets.
unsigned int RecordMedia(quarn::calvane::RecordingManager& recorder, const std::string& path,
                         const RecordingPlan& plan);
