#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "RecordingClient.h"

namespace calvane_web {

/// What is to be seen of a coverage at a certain size: stretches shorter than a bucket are merged with those beside them that
/// are, too. However many there are, no more than two for each bucket are left.
class CoverageSummary {
public:
    using ReasonText = std::string (*)(unsigned int reason);

    /// A bucket is the `buckets`th part of `span`.
    CoverageSummary(const calvane_recording::Span& span, std::int64_t buckets, ReasonText reasonText);

    /// The next stretch.
    void Add(const calvane_recording::Interval& interval);
    /// {"spans": [...], "isSummary": ...}; nothing is added behind.
    nlohmann::json Finish();

private:
    void Flush();
    nlohmann::json ToJson(const calvane_recording::Span& span, unsigned int reason) const;

    const calvane_recording::Span span_;
    const calvane_recording::Time bucket_;
    const ReasonText reasonText_;
    // Of the short stretches that are being merged.
    calvane_recording::Span merged_;
    std::map<unsigned int, calvane_recording::Time> lengths_; ///< By reason.
    std::size_t count_ = 0;

    bool isSummary_ = false;
    nlohmann::json spans_ = nlohmann::json::array();
};

} // namespace calvane_web
