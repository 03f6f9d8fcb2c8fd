#pragma once

#include <stdexcept>
#include <string>

namespace drenn::multi_track_recorder {

/// A file operation that failed: "Cannot write /media/x: No space left on device".
class FileError : public std::runtime_error {
public:
    /// `operation`: what could not be done, such as "write".
    FileError(const std::string& operation, const std::string& path, int error);

    int GetError() const { return error_; } ///< The errno.
    /// ENOSPC or EDQUOT from an operation that can be repeated when there is room. Never of a sync.
    virtual bool IsOutOfSpace() const;

private:
    const int error_;
};

/// A sync that failed, for whatever reason. What was written since the last good sync may be lost although its pages
/// count as clean, so a second sync that succeeds proves nothing: the file is not to be written or relied on any more.
class SyncError : public FileError {
public:
    SyncError(const std::string& path, int error) : FileError("sync", path, error) {}
    bool IsOutOfSpace() const override { return false; }
};

/// A file that a later version of the store made. It is refused, and nothing was changed.
class LaterVersionError : public std::runtime_error {
public:
    LaterVersionError(const std::string& path, const std::string& version)
        : std::runtime_error(path + " was made by a later version (" + version +
                             ") of the store than this program knows; nothing was changed") {}
};

} // namespace drenn::multi_track_recorder
