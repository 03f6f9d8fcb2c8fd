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
    bool IsOutOfSpace() const;              ///< ENOSPC or EDQUOT.

private:
    const int error_;
};

} // namespace drenn::multi_track_recorder
