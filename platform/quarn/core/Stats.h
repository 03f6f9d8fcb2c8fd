#pragma once

#include <algorithm>
#include <limits>

namespace quarn::stl {

/// The sum, number, smallest and largest of samples of an unsigned type `T`; `Acc` holds the sum.
///
/// Threads: one at a time.
template <typename T, typename Acc>
class Stats {
public:
    virtual ~Stats() = default;

    void Add(T sample) {
        sum_ += sample;
        ++count_;
        min_ = std::min(min_, sample);
        max_ = std::max(max_, sample);
    }
    /// As if there had been no samples.
    void Reset() { *this = Stats(); }

    Acc GetSum() const { return sum_; }
    unsigned int GetCount() const { return count_; }
    /// All bits set while there are no samples.
    T GetMin() const { return min_; }
    /// 0 while there are no samples.
    T GetMax() const { return max_; }
    /// Not to be asked for while there are no samples.
    double GetAverage() const { return static_cast<double>(sum_) / count_; }

private:
    Acc sum_ = 0;
    unsigned int count_ = 0;
    T min_ = std::numeric_limits<T>::max();
    T max_ = 0;
};

} // namespace quarn::stl
