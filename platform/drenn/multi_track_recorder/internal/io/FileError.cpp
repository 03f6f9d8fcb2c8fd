#include <cerrno>
#include <system_error>

#include "drenn/multi_track_recorder/internal/io/FileError.h"

namespace drenn::multi_track_recorder {

FileError::FileError(const std::string& operation, const std::string& path, int error)
    : std::runtime_error("Cannot " + operation + " " + path + ": " + std::generic_category().message(error)),
      error_(error) {}

bool FileError::IsOutOfSpace() const {
    return error_ == ENOSPC || error_ == EDQUOT;
}

} // namespace drenn::multi_track_recorder
