#pragma once

#include <cstdint>
#include <map>
#include <optional>

namespace calvane_media {

/// Makes one rising line of the decode time stamps of an input's streams, in microseconds: after a jump they go on where
/// the streams ended, all by the same amount, so that streams stay together.
///
/// Threads: one.
class StampLine {
public:
    struct Stamp {
        std::int64_t value;
        std::int64_t shift; ///< What was added to the input's own stamp.
        bool jumped;        ///< The input's own stamps did not go on from the last one of this stream.
    };

    /// `mostForward`: what is more is no gap but a jump.
    void SetMostForward(std::int64_t mostForward) { mostForward_ = mostForward; }
    /// The input begins anew, and its stamps with it.
    void Restart();
    /// `stamp` may be missing; then the packet follows the last one of its stream.
    Stamp Next(int stream, std::optional<std::int64_t> stamp, std::int64_t duration);

private:
    struct Stream {
        std::int64_t shift = 0;
        std::int64_t last = 0; // Shifted.
        std::int64_t end = 0;  // The same.
    };

    bool GoesOn(const Stream& stream, std::int64_t shifted) const;

    std::int64_t mostForward_ = 0;
    std::map<int, Stream> streams_;
    bool restarts_ = false;
    std::int64_t firstStamp_ = 0; // Of all streams, shifted, since the input began.
    std::int64_t lead_ = 0;       // How much earlier than it other streams began.
    std::int64_t shift_ = 0;      // The latest, which each stream takes over when it jumps.
    std::int64_t end_ = 0;        // Of all streams, shifted.
};

} // namespace calvane_media
