#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>

#include "RecordingClient.h"

namespace calvane_web {

/// What is to be seen of a coverage at a certain size: stretches shorter than a bucket are merged with those beside them that
/// are, too. However many there are, no more than two for each bucket are left.
class CoverageSummary {
public:
    /// A bucket is the `buckets`th part of `span`.
    CoverageSummary(const calvane_recording::Span& span, std::int64_t buckets);

    /// The next stretch.
    void Add(const calvane_recording::Interval& interval);
    /// {"spans": [...], "isSummary": ...}; nothing is added behind.
    nlohmann::json Finish();

private:
    void Flush();

    const calvane_recording::Span span_;
    const calvane_recording::Time bucket_;
    // Of the short stretches that are being merged.
    calvane_recording::Span merged_;
    std::map<unsigned int, calvane_recording::Time> lengths_; ///< By reason.
    std::size_t count_ = 0;

    bool isSummary_ = false;
    nlohmann::json spans_ = nlohmann::json::array();
};

} // namespace calvane_web
