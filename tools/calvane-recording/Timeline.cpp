#include "Timeline.h"

#include <algorithm>
#include <array>

namespace calvane_recording {
namespace {

constexpr int kWidth = 60;
constexpr std::size_t kReasons = 7;
constexpr std::array<char, kReasons> kMarks{'#', '.', 'c', 'e', 'd', 't', '?'};

char MarkOf(const std::vector<Interval>& intervals, const Span& cell) {
    std::array<Time, kReasons> lengths{};
    Time all = 0;
    for (const Interval& interval : intervals) {
        // One more, so that a moment counts.
        const Time common =
            std::min(interval.span.last, cell.last) - std::max(interval.span.first, cell.first) + 1;
        if (common > 0) {
            lengths.at(std::min<std::size_t>(interval.reason, kReasons - 1)) += common;
            all += common;
        }
    }
    if (all == 0) {
        return ' ';
    }
    if (lengths[0] != 0) {
        return lengths[0] == all ? kMarks[0] : '+';
    }
    return kMarks.at(
        static_cast<std::size_t>(std::max_element(lengths.begin(), lengths.end()) - lengths.begin()));
}

} // namespace

std::string Timeline(const std::vector<Interval>& intervals, const Span& span) {
    const Time length = std::max<Time>(span.last - span.first, kWidth);
    std::string line;
    for (int cell = 0; cell != kWidth; ++cell) {
        line += MarkOf(intervals,
                       {span.first + length / kWidth * cell, span.first + length / kWidth * (cell + 1) - 1});
    }
    return line;
}

} // namespace calvane_recording
