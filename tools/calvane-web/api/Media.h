#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "api/MediaSources.h"
#include "api/Query.h"
#include "http/Exchange.h"

namespace calvane_export {
struct ExportOptions;
}

namespace calvane_web {

/// The answers that carry recorded media; docs/reference/web-api.md describes them.
///
/// Each reads from its source while it is written, at the speed of its reader, so that it holds a few pieces at most. Only some
/// are under way at the same time, as the sources allow; others wait, and are Busy at last.
///
/// Threads:  any.
/// Errors:   std::invalid_argument for a bad query, which names the parameter; those of the sources. Once an answer has begun
///           it is cut off.
/// Lifetime: outlives the answers.
class Media {
public:
    /// `sources` outlive it.
    explicit Media(IMediaSources& sources) : sources_(sources) {}

    /// Who asks; empty for somebody who may be many. No client has all of the answers that are possible at once.
    using Client = std::string;

    /// For a player: fragmented MP4 from a key frame on, without a gap.
    Reply AnswerMedia(const Client& client, Query& query);
    /// A file to keep, with all tracks.
    Reply AnswerExport(const Client& client, Query& query);
    /// A key frame as JPEG.
    Reply AnswerThumbnail(const Client& client, Query& query);
    /// Ends the answers under way.
    void Stop() { isStopped_ = true; }

private:
    class Job;
    /// A file that is written as long as it is read; 404 when there is nothing for it.
    static Reply Stream(const std::shared_ptr<Job>& job, const calvane_export::ExportOptions& options,
                        bool mustBeWhole);

    MediaChoice Choose(const Client& client, Query& query);

    IMediaSources& sources_;
    std::atomic<bool> isStopped_{false};
    std::mutex decoding_; ///< One picture at a time: each takes some megabytes.
};

} // namespace calvane_web
