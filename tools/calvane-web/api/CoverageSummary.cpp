#include "api/CoverageSummary.h"

#include <algorithm>

#include "Answers.h"

namespace calvane_web {
namespace {

using calvane_recording::Interval;
using calvane_recording::Span;
using calvane_recording::Time;
using nlohmann::json;

/// 0 without any.
unsigned int LongestOf(const std::map<unsigned int, Time>& lengths) {
    const auto longest =
        std::max_element(lengths.begin(), lengths.end(),
                         [](const auto& one, const auto& other) { return one.second < other.second; });
    return longest == lengths.end() ? 0 : longest->first;
}

} // namespace

CoverageSummary::CoverageSummary(const Span& span, std::int64_t buckets, ReasonText reasonText)
    : span_(span), bucket_((span.last - span.first) / buckets), reasonText_(reasonText) {}

json CoverageSummary::ToJson(const Span& span, unsigned int reason) const {
    return {{"from", calvane_recording::ToJson(span.first)},
            {"to", calvane_recording::ToJson(span.last)},
            {"present", reason == 0},
            {"reason", reason},
            {"text", reasonText_(reason)}};
}

void CoverageSummary::Add(const Interval& interval) {
    const Span span{std::max(interval.span.first, span_.first), std::min(interval.span.last, span_.last)};
    const Time length = std::max<Time>(span.last - span.first, 1); // A single record has its moment.
    if (length >= bucket_) {
        Flush();
        spans_.push_back(ToJson(span, interval.reason));
        return;
    }
    merged_ = {count_ == 0 ? span.first : merged_.first, span.last};
    lengths_[interval.reason] += length;
    ++count_;
    if (merged_.last - merged_.first >= bucket_) {
        Flush();
    }
}

void CoverageSummary::Flush() {
    if (count_ == 0) {
        return;
    }
    const Time present = lengths_[0];
    lengths_.erase(0);
    const unsigned int reason = LongestOf(lengths_);
    if (count_ == 1) {
        spans_.push_back(ToJson(merged_, reason));
    } else {
        Time all = present;
        for (const auto& [each, length] : lengths_) {
            all += length;
        }
        json facts = ToJson(merged_, reason);
        facts["present"] = present * 2 >= all;
        facts["mixed"] = true;
        facts["share"] = static_cast<double>(present) / static_cast<double>(all);
        spans_.push_back(std::move(facts));
        isSummary_ = true;
    }
    lengths_.clear();
    count_ = 0;
}

json CoverageSummary::Finish() {
    Flush();
    return {{"spans", std::move(spans_)}, {"isSummary", isSummary_}};
}

} // namespace calvane_web
