#pragma once

#include <atomic>

#include "MediaCommandLine.h"

namespace calvane_recording {

class Source;

/// What the command line says, and whether the user has had enough.
struct MediaRun {
    MediaOptions options;
    Zone zone = Zone::Utc;
    const char* program = "calvane-recording"; ///< Which warnings name.
    std::atomic<bool> isInterrupted{false};
};

// Each throws std::exception when it fails; also when some of what was to be read is lost, and the rest has been written.
void ExportMovie(const MediaRun& run);
/// From this source, whatever the options say.
void ExportMovie(const MediaRun& run, const Source& source);
void WriteThumbnails(const MediaRun& run);
void Play(const MediaRun& run);

} // namespace calvane_recording
