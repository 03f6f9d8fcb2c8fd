#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>

namespace calvane_recorder {

constexpr std::size_t kTracks = 3;
using TrackBytes = std::array<std::uint64_t, kTracks>;

/// How fast the tracks have grown during the last minute.
class GrowthMeter {
public:
    using Clock = std::chrono::steady_clock;

    /// So many bytes each track has had at a moment; moments do not go back.
    void Add(Clock::time_point moment, const TrackBytes& bytes);
    /// 0 until two moments are at least a second apart.
    TrackBytes GetBytesPerHour() const;

private:
    struct Sample {
        Clock::time_point moment;
        TrackBytes bytes;
    };
    std::deque<Sample> samples_;
};

/// What becomes of the card if data goes on to come as fast as now.
struct Forecast {
    enum class Erases { Nothing, Age, Space };

    /// When the card will be full, in microseconds since 1970: from then on the oldest data gives way. 0 when it never
    /// will be.
    std::int64_t fullAt = 0;
    /// What is erased in the long run: nothing, what is older than the limit, or the oldest when there is no room.
    Erases erases = Erases::Nothing;
};

/// `cardBytes`: what the card can hold before data gives way; `usableBytes`: what of that is free. `limit`: how long data
/// is kept, in microseconds, 0 for as long as there is room.
Forecast MakeForecast(std::int64_t now, std::uint64_t cardBytes, std::uint64_t usableBytes,
                      std::uint64_t bytesPerHour, std::uint64_t limit);

} // namespace calvane_recorder
