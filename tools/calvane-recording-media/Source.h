#pragma once

#include <memory>

#include "Commands.h"
#include "media_export/Export.h"
#include "record_source/RecordSource.h"

namespace calvane_recording {

class RecordingClient;

/// The source that the options name, and what is to be taken of it.
///
/// Errors: those of CardSource, RecordingClient and ParseSpan.
class Source {
public:
    explicit Source(const MediaRun& run);
    /// Another one than those of the options; it outlives this.
    Source(const MediaRun& run, IRecordSource& records);
    ~Source();

    IRecordSource& Records() const { return *used_; }
    /// The span, the tracks and the gaps; not where it is written to.
    calvane_export::ExportOptions Options() const;

private:
    const MediaRun& run_;
    const Span span_;
    std::unique_ptr<RecordingClient> client_;
    std::unique_ptr<IRecordSource> records_;
    IRecordSource* used_ = nullptr;
};

/// Throws std::runtime_error that says what was lost, if something was.
void RequireWhole(const Losses& losses);

} // namespace calvane_recording
