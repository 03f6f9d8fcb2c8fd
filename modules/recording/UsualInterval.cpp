#include "UsualInterval.h"

#include <algorithm>

namespace recording {

using namespace std::chrono_literals;

UsualInterval::UsualInterval(Clock::duration shortest, int rateMilliHz)
    : shortest_(shortest), given_(rateMilliHz > 0 ? Clock::duration(1000s) / rateMilliHz : 0s) {}

void UsualInterval::Arrived(Clock::time_point now) {
    if (last_) {
        intervals_[count_++ % kKept] = now - *last_;
    }
    last_ = now;
}

UsualInterval::Clock::duration UsualInterval::LongestGap() const {
    if (given_ != Clock::duration::zero()) {
        return std::max(shortest_, given_ * kMuchLonger);
    }
    if (count_ < kFewest) {
        return std::max<Clock::duration>(shortest_, kUnknown);
    }
    auto known = intervals_;
    auto* const middle = known.data() + std::min(count_, kKept) / 2;
    std::nth_element(known.data(), middle, known.data() + std::min(count_, kKept));
    return std::max(shortest_, *middle * kMuchLonger);
}

} // namespace recording
