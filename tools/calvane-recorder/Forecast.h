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
    enum class Erases { Nothing, Age, Space, SpaceLimit };

    /// When there will be no room, in microseconds since 1970: from then on the oldest data gives way. 0 when there always
    /// will be some.
    std::int64_t fullAt = 0;
    /// What is erased in the long run: nothing, what is older than the limit, the oldest when the card is full, or when
    /// the limit of space is reached.
    Erases erases = Erases::Nothing;
};

/// What can be held before data gives way, in bytes, and what of that is free.
struct Room {
    std::uint64_t bytes = 0;
    std::uint64_t usable = 0;
    bool isLimited = false; ///< By a limit of space rather than by the card.
};

/// That of a card, or of a limit of space (0: none) of which `used` are taken, whichever is smaller.
Room LimitRoom(const Room& card, std::uint64_t limit, std::uint64_t used);

/// `limit`: how long data is kept, in microseconds, 0 for as long as there is room.
Forecast MakeForecast(std::int64_t now, const Room& room, std::uint64_t bytesPerHour, std::uint64_t limit);

} // namespace calvane_recorder
