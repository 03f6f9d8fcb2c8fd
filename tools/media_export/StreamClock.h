#pragma once

extern "C" {
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <cstdint>
#include <limits>

namespace calvane_export {

/// Turns times in microseconds into the ticks that a stream had before it was recorded.
///
/// Rounded to microseconds, times are still exact: each is counted from the first one, so that no error adds up.
class StreamClock {
public:
    explicit StreamClock(AVRational timeBase) : timeBase_(timeBase) {}

    /// The decode time, later than all before it, as containers want it.
    std::int64_t DecodeTicks(std::int64_t time, std::int64_t shift) {
        if (isFresh_ || shift != shift_) {
            isFresh_ = false;
            shift_ = shift;
            base_ = time;
            baseTicks_ = Ticks(time - shift);
        }
        last_ = std::max(last_ + 1, baseTicks_ + Ticks(time - base_));
        return last_;
    }
    std::int64_t Ticks(std::int64_t microseconds) const {
        return av_rescale_q(microseconds, {1, 1'000'000}, timeBase_);
    }
    AVRational TimeBase() const { return timeBase_; }

private:
    const AVRational timeBase_;
    bool isFresh_ = true;
    std::int64_t shift_ = 0;
    std::int64_t base_ = 0;
    std::int64_t baseTicks_ = 0;
    std::int64_t last_ = std::numeric_limits<std::int64_t>::min() / 2;
};

} // namespace calvane_export
