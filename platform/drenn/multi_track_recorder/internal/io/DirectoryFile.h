#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "drenn/multi_track_recorder/internal/io/Catalogue.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

/// The directories of sealed segments, one behind the other in a file: all of them are read at once, without opening a segment.
///
/// Nothing depends on it. It is not synced, what was damaged or lost of it is read from the segments, and what it has of segments
/// that are gone stays until it is full and begins anew.
///
/// Threads: any.
class DirectoryFile {
public:
    /// `path` need not be there.
    DirectoryFile(IFileSystem& files, std::string path) : files_(files), path_(std::move(path)) {}

    /// Errors: FileError, where nothing is lost but the time that it saves.
    void Append(SegmentKey segment, const Bytes& directory);
    /// Those that check, the newest first.
    /// Errors: FileError.
    void ForEach(const std::function<void(SegmentKey, const StoredDirectory&)>& onDirectory) const;

    static constexpr std::uint64_t kMostBytes = 16ULL << 20U;

private:
    IFileSystem& files_;
    const std::string path_;
    mutable std::mutex mutex_;
};

} // namespace drenn::multi_track_recorder
