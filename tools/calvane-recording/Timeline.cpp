#include "Timeline.h"

#include <algorithm>
#include <array>

#include "calvane/recording/Coverage.h"

namespace calvane_recording {
namespace {

constexpr int kWidth = 60;
constexpr const auto& kReasons = quarn::calvane::kCoverageReasonNames;
constexpr auto kUnknown = static_cast<std::size_t>(quarn::calvane::CoverageReason::Unknown);

std::size_t IndexOf(unsigned int reason) {
    return reason < kReasons.size() ? reason : kUnknown;
}

char MarkOf(const std::vector<Interval>& intervals, const Span& cell) {
    std::array<Time, kReasons.size()> lengths{};
    Time all = 0;
    for (const Interval& interval : intervals) {
        // One more, so that a moment counts.
        const Time common =
            std::min(interval.span.last, cell.last) - std::max(interval.span.first, cell.first) + 1;
        if (common > 0) {
            lengths.at(IndexOf(interval.reason)) += common;
            all += common;
        }
    }
    if (all == 0) {
        return ' ';
    }
    if (lengths[0] != 0) {
        return lengths[0] == all ? kReasons[0].mark : '+';
    }
    const auto longest = std::max_element(lengths.begin(), lengths.end()) - lengths.begin();
    return kReasons.at(static_cast<std::size_t>(longest)).mark;
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
