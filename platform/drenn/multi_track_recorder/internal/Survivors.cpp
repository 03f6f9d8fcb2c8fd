#include <algorithm>

#include "drenn/multi_track_recorder/internal/Survivors.h"

namespace drenn::multi_track_recorder {

std::uint64_t Survivors::SerialAt(std::uint64_t index) const {
    const auto behind =
        std::upper_bound(runs_.begin(), runs_.end(), index,
                         [](std::uint64_t value, const Run& run) { return value < run.index; });
    const Run& run = *std::prev(behind);
    return run.serial + (index - run.index);
}

/// The last run that does not begin behind the serial; null without one.
const Survivors::Run* Survivors::RunBefore(std::uint64_t serial) const {
    const auto behind =
        std::upper_bound(runs_.begin(), runs_.end(), serial,
                         [](std::uint64_t value, const Run& run) { return value < run.serial; });
    return behind == runs_.begin() ? nullptr : &*std::prev(behind);
}

std::uint64_t Survivors::IndexOf(std::uint64_t serial) const {
    const Run* const run = RunBefore(serial);
    return run == nullptr ? 0 : run->index + std::min(serial - run->serial, run->count);
}

bool Survivors::Has(std::uint64_t serial) const {
    const Run* const run = RunBefore(serial);
    return run != nullptr && serial - run->serial < run->count;
}

void Survivors::Append(SerialRange range) {
    if (!runs_.empty() && runs_.back().serial + runs_.back().count == range.first) {
        runs_.back().count += range.end - range.first;
    } else if (range.end > range.first) {
        runs_.push_back({Size(), range.first, range.end - range.first});
    }
}

void Survivors::Erase(SerialRange range) {
    if (CountIn(range) == 0) {
        return;
    }
    const std::vector<Run> before = std::move(runs_);
    runs_.clear();
    for (const Run& run : before) {
        const std::uint64_t end = run.serial + run.count;
        Append({run.serial, std::min(end, std::max(run.serial, range.first))});
        Append({std::max(run.serial, std::min(end, range.end)), end});
    }
}

void ErasedRanges::Add(SerialRange range) {
    std::vector<SerialRange> joined;
    for (const SerialRange& other : ranges_) {
        if (other.end < range.first || range.end < other.first) {
            joined.push_back(other);
        } else {
            range = {std::min(range.first, other.first), std::max(range.end, other.end)};
        }
    }
    if (range.first <= firstSerial_) {
        firstSerial_ = std::max(firstSerial_, range.end);
    } else {
        joined.insert(std::upper_bound(joined.begin(), joined.end(), range,
                                       [](SerialRange a, SerialRange b) { return a.first < b.first; }),
                      range);
    }
    ranges_ = std::move(joined);
}

} // namespace drenn::multi_track_recorder
