#pragma once

#include <cstdint>

namespace calvane_media {

/// Maps the time stamps of an input to UTC. All times are in microseconds.
///
/// A run begins at a time in UTC, and goes on as the stamps do. Where packets come when they come, the clock of their
/// producer and the device's drift apart, and either may be set: Follow keeps the run at the time at which packets arrive.
/// Small differences are made up for so slowly that streams stay together; of large ones it says so.
///
/// Threads: one.
class PacketClock {
public:
    /// The next stamp is this time.
    void Begin(std::int64_t utc);
    /// The time of a stamp; the first one defines where the run begins.
    std::int64_t Map(std::int64_t stamp);

    /// A packet of mapped time `time` came at `arrival` in UTC. Returns true when the run had to jump: what is mapped from
    /// now on is more than kLargest away from what it would have been.
    bool Follow(std::int64_t time, std::int64_t arrival);

    /// Differences above that are not made up for bit by bit.
    static constexpr std::int64_t kLargest = 5'000'000;

private:
    void Steer(std::int64_t time);
    bool EndWindow();

    bool running_ = false;
    std::int64_t begin_ = 0; // In UTC.
    std::int64_t firstStamp_ = 0;
    std::int64_t correction_ = 0; // Added to what follows from the stamps.
    std::int64_t wanted_ = 0;     // What the correction is on its way to.
    std::int64_t lastTime_ = 0;

    // Packets of the last seconds: by how much they came later than they are dated.
    std::int64_t windowBegin_ = 0;
    std::int64_t leastLate_ = 0;
    std::int64_t mostLate_ = 0;
};

} // namespace calvane_media
