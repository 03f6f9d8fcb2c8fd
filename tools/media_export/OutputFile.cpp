#include "media_export/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace calvane_export {
namespace {

std::string FolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
}

std::string NameIn(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

/// The device begins to write so many bytes while the next ones are put together, so that Keep waits for few.
constexpr std::uint64_t kWrittenOut = 4 << 20;

/// What a new file may be read and written by.
mode_t UsualMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

} // namespace

OutputFile::OutputFile(std::string path, bool overwrite) : path_(std::move(path)), overwrite_(overwrite) {
    struct stat there {};
    if (stat(path_.c_str(), &there) == 0) {
        if (!overwrite_) {
            throw std::system_error(EEXIST, std::generic_category(),
                                    path_ + " is left alone (--force overwrites it)");
        }
        if (!S_ISREG(there.st_mode)) {
            throw std::system_error(EINVAL, std::generic_category(), path_ + " is no regular file");
        }
    }
    temporary_ = FolderOf(path_) + "/." + NameIn(path_) + ".XXXXXX";
    descriptor_ = mkostemp(temporary_.data(), O_CLOEXEC);
    if (descriptor_ < 0) {
        const int error = errno;
        temporary_.clear();
        Fail("make", error);
    }
    fchmod(descriptor_, UsualMode());
}

OutputFile::~OutputFile() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
    if (!temporary_.empty()) {
        unlink(temporary_.c_str());
    }
}

void OutputFile::Write(const std::uint8_t* bytes, std::size_t length) {
    while (length != 0) {
        const ssize_t count = pwrite(descriptor_, bytes, length, static_cast<off_t>(offset_));
        if (count < 0 && errno != EINTR) {
            Fail("write", errno);
        }
        if (count > 0) {
            bytes += count;
            length -= static_cast<std::size_t>(count);
            offset_ += static_cast<std::uint64_t>(count);
            size_ = std::max(size_, offset_);
        }
    }
    if (size_ - writtenOut_ >= kWrittenOut) {
        // Not every file system can; Keep syncs all the same.
        (void)sync_file_range(descriptor_, static_cast<off_t>(writtenOut_),
                              static_cast<off_t>(size_ - writtenOut_), SYNC_FILE_RANGE_WRITE);
        writtenOut_ = size_;
    }
}

void OutputFile::Keep() {
    // A full disk may only show here.
    if (fsync(descriptor_) != 0) {
        Fail("write", errno);
    }
    const int closed = close(std::exchange(descriptor_, -1));
    if (closed != 0) {
        Fail("write", errno);
    }
    // The plain call overwrites, so without leave it is for file systems only that do not know the other.
    int renamed = -1;
    if (!overwrite_) {
        renamed = renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE);
    }
    if (overwrite_ || (renamed != 0 && errno == EINVAL && access(path_.c_str(), F_OK) != 0)) {
        renamed = rename(temporary_.c_str(), path_.c_str());
    }
    if (renamed != 0) {
        Fail("make", errno);
    }
    temporary_.clear();
    SyncFolder();
}

/// Not every file system can; the file is there all the same.
void OutputFile::SyncFolder() const {
    const int folder = open(FolderOf(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        fsync(folder);
        close(folder);
    }
}

void OutputFile::Fail(const char* what, int error) const {
    throw std::system_error(error, std::generic_category(), std::string("Cannot ") + what + " " + path_);
}

void OutputDescriptor::Write(const std::uint8_t* bytes, std::size_t length) {
    while (length != 0) {
        const ssize_t count = write(descriptor_, bytes, length);
        if (count > 0) {
            bytes += count;
            length -= static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "Cannot write to standard output");
        }
    }
}

} // namespace calvane_export
