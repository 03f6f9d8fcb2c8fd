#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>

namespace recording {

/// How long a track's data may stay away before it counts as absent: four times what is usual between two records. That
/// follows from the rate, if one is given; otherwise it is learned, as the median of the last intervals.
///
/// Threads: one at a time.
class UsualInterval {
public:
    using Clock = std::chrono::steady_clock;

    /// As long as nothing is known. Readers, too, take records that are at most so far apart for one piece.
    static constexpr std::chrono::seconds kUnknown{10};

    /// `shortest`: less is never taken for a gap. `rateMilliHz`: records in 1000 seconds; 0 to learn it.
    UsualInterval(Clock::duration shortest, int rateMilliHz);

    /// A record came. Also one that ends a gap: a track that slows down is to be learned anew.
    void Arrived(Clock::time_point now);
    Clock::duration LongestGap() const;

private:
    static constexpr std::size_t kKept = 9;
    static constexpr std::size_t kFewest = 3;
    static constexpr int kMuchLonger = 4;

    const Clock::duration shortest_;
    const Clock::duration given_; // Zero if it is to be learned.
    std::optional<Clock::time_point> last_;
    std::array<Clock::duration, kKept> intervals_{};
    std::size_t count_ = 0; // Of all that came; the last ones are kept.
};

} // namespace recording
