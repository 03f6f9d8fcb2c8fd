#pragma once

#include <functional>
#include <memory>
#include <string>

#include "RecordingClient.h"
#include "api/Query.h"
#include "record_source/RecordSource.h"

namespace calvane_web {

/// What one answer with media is made of.
///
/// Threads: one.
class IMediaSource {
public:
    virtual calvane_recording::IRecordSource& Records() = 0;
    /// The coverage of a track: calls back for one stretch after another until it returns false.
    virtual void ForEachInterval(
        calvane_recording::TrackKind track, const calvane_recording::Span& span,
        const std::function<bool(const calvane_recording::Interval&)>& onInterval) = 0;
    virtual ~IMediaSource() = default;
};

/// What a request has chosen.
struct MediaChoice {
    std::string name; ///< For files: letters, digits and hyphens.
    std::function<std::unique_ptr<IMediaSource>()> open;
};

/// Where media comes from.
///
/// Threads: any.
/// Errors:  std::invalid_argument for a bad parameter. `open` throws Busy when too many are open, Unavailable or an error of its
///          own when nobody answers, and std::runtime_error when there is nothing of the kind.
class IMediaSources {
public:
    /// Takes the parameters that choose one. `client` is who asks, empty for many; what is opened ends with an error once
    /// `isStopped` says so.
    virtual MediaChoice Choose(Query& query, const std::string& client, std::function<bool()> isStopped) = 0;
    virtual ~IMediaSources() = default;
};

} // namespace calvane_web
