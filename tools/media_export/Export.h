#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <vector>

#include "media_export/IOutput.h"
#include "media_export/MovieWriter.h"
#include "record_source/RecordSource.h"

namespace calvane_export {

using calvane_recording::IRecordSource;
using calvane_recording::Losses;
using calvane_recording::Span;
using calvane_recording::TrackKind;

struct ExportOptions {
    Span span;
    std::set<TrackKind> tracks{TrackKind::Video, TrackKind::Audio, TrackKind::Metadata};
    Container container = Container::Mp4;
    bool fragmented = false;
    /// Leaves out time without video and audio. Otherwise it passes in the file, too.
    bool skipGaps = false;
    /// Where not 0, video and audio are complete from `span.first` to the end of the file: it ends where one of them is
    /// missing for longer than this (and five usual intervals), and where one begins that was missing. For players that wait
    /// for what is missing. Audio and metadata then begin at `span.first`.
    Time longestGap = 0;
    /// Of the fragments of an mp4 file at most, in microseconds; 0: one for each key frame.
    Time fragmentTime = 0;
    /// Gets the time of every record that is written. May throw, which ends the export.
    std::function<void(Time at)> onRecord = [](Time) {};
};

/// Video or audio of another codec, size or the like, which needs another file.
struct Change {
    TrackKind track = TrackKind::Video;
    Time time = 0;
};

/// What was written into one file.
struct Part {
    Time begin = 0;  ///< The time of the day when it is 0 in the file.
    Time end = 0;    ///< Of the last record.
    Time joined = 0; ///< Left out with skipGaps.
    std::array<std::uint64_t, 3> records{};
    std::uint64_t bytes = 0;
    std::uint64_t beforeKeyFrame = 0;       ///< Records of video without the key frame that they need.
    std::array<std::uint64_t, 3> leftOut{}; ///< Records that the file cannot hold.
    Losses losses;
    std::optional<Change> change; ///< Why it ended before the span did.
};

/// There is nothing to export.
class NothingThere : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Writes a stretch of a recording into a file, without changing a packet.
///
/// It begins with the key frame that is shown at `span.first` or before it, and the audio and metadata from its decode time
/// on; where there is none, with the first key frame behind. It ends with the last record whose time is not later than
/// `span.last`, or where the parameters of video or audio change. Then `from`, the change that ended the last part, begins
/// the next one: with audio that changes, video is written again from its last key frame on.
///
/// Threads:  one.
/// Errors:   NothingThere; std::runtime_error when a track cannot be written, with its name and time; what the source, the
///           output and `onRecord` throw.
/// Lifetime: the constructor opens what is to be read and begins the file, Finish writes all of it, once. The source and the
///           output outlive it.
class PartExport {
public:
    PartExport(IRecordSource& source, IOutput& output, const ExportOptions& options,
               const std::optional<Change>& from = std::nullopt);
    ~PartExport();
    PartExport(const PartExport&) = delete;
    PartExport& operator=(const PartExport&) = delete;

    /// The time of the day when it is 0 in the file.
    Time Begin() const;
    /// Of the streams of video and audio in the file. They live as long as this.
    std::vector<const calvane_media::CodecInfo*> Codecs() const;
    Part Finish();

private:
    class Impl;
    const std::unique_ptr<Impl> impl_;
};

/// Both at once.
Part ExportPart(IRecordSource& source, IOutput& output, const ExportOptions& options,
                const std::optional<Change>& from = std::nullopt);

} // namespace calvane_export
