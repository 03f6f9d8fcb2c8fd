#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <future>
#include <system_error>

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::size_t kStreamBytes = std::size_t{128} * 1024;
constexpr std::uint64_t kPageBytes = 4096;

[[noreturn]] void Fail(const std::string& operation, const std::string& path) {
    throw FileError(operation, path, errno);
}

std::string FolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

std::string NameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// A descriptor for the time of a block.
class Descriptor {
public:
    Descriptor(const std::string& path, int flags) : Descriptor(AT_FDCWD, path, path, flags) {}
    /// `name` in the folder that is open as `folder`.
    Descriptor(int folder, const std::string& name, const std::string& path, int flags)
        : number_(openat(folder, name.c_str(), flags | O_CLOEXEC, 0644)) {
        if (number_ < 0) {
            Fail("open", path);
        }
    }
    ~Descriptor() { close(number_); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Number() const { return number_; }

private:
    const int number_;
};

/// The folder of a path, held so that what is done in it is done in this folder and not behind a link.
class Folder : public Descriptor {
public:
    explicit Folder(const std::string& path) : Descriptor(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW) {}
};

struct stat StatusOf(const std::string& path) {
    struct stat status {};
    if (fstatat(AT_FDCWD, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        Fail("look at", path);
    }
    return status;
}

int FlagsOf(OpenMode mode) {
    switch (mode) {
        case OpenMode::Read:
            return O_RDONLY;
        case OpenMode::ReadWrite:
            return O_RDWR;
        case OpenMode::Create:
            return O_RDWR | O_CREAT;
        case OpenMode::CreateNew:
            return O_RDWR | O_CREAT | O_EXCL;
    }
    return O_RDONLY;
}

class PosixFile : public IFile {
public:
    // Opening a FIFO does not wait; what is no regular file is refused before anything is read or written.
    PosixFile(const Folder& folder, const std::string& name, std::string path, OpenMode mode)
        : path_(std::move(path)),
          descriptor_(folder.Number(), name, path_, FlagsOf(mode) | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY) {
        struct stat status {};
        if (fstat(descriptor_.Number(), &status) != 0) {
            Fail("look at", path_);
        }
        if (!S_ISREG(status.st_mode)) {
            throw FileError("open what is no regular file,", path_, EINVAL);
        }
    }

    std::size_t Read(std::uint64_t offset, void* bytes, std::size_t length) const override {
        std::size_t done = 0;
        while (done < length) {
            const ssize_t got = pread(descriptor_.Number(), static_cast<char*>(bytes) + done, length - done,
                                      static_cast<off_t>(offset + done));
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got < 0) {
                Fail("read", path_);
            }
            if (got == 0) {
                break;
            }
            done += static_cast<std::size_t>(got);
        }
        return done;
    }

    void Write(std::uint64_t offset, const void* bytes, std::size_t length) override {
        std::size_t done = 0;
        while (done < length) {
            const ssize_t put = pwrite(descriptor_.Number(), static_cast<const char*>(bytes) + done,
                                       length - done, static_cast<off_t>(offset + done));
            if (put < 0 && errno == EINTR) {
                continue;
            }
            if (put < 0) {
                Fail("write", path_);
            }
            done += static_cast<std::size_t>(put);
        }
        if (length >= kStreamBytes) {
            // The device works on it while more is copied. Only whole pages: the next write goes on in the last one.
            // An error of this is told by the next sync.
            const std::uint64_t end = (offset + length) / kPageBytes * kPageBytes;
            (void)sync_file_range(descriptor_.Number(), static_cast<off_t>(offset),
                                  static_cast<off_t>(end - offset), SYNC_FILE_RANGE_WRITE);
        }
    }

    void Truncate(std::uint64_t length) override {
        if (ftruncate(descriptor_.Number(), static_cast<off_t>(length)) != 0) {
            Fail("cut", path_);
        }
    }

    void Reserve(std::uint64_t length) override {
        // Where a file system cannot, writing takes the room that is needed.
        if (fallocate(descriptor_.Number(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(length)) != 0 &&
            errno != EOPNOTSUPP && errno != ENOSYS) {
            Fail("reserve room for", path_);
        }
    }

    void WillRead(std::uint64_t offset, std::uint64_t length) const override {
        posix_fadvise(descriptor_.Number(), static_cast<off_t>(offset), static_cast<off_t>(length),
                      POSIX_FADV_WILLNEED);
    }

    void Sync() override {
        if (fdatasync(descriptor_.Number()) != 0) {
            throw SyncError(path_, errno);
        }
    }

    void WriteOut() override {
        // The error that this waits for is not told again by fdatasync. It is none of the device if a kernel or a filter of
        // system calls does not know the call: then Sync does all by itself.
        if (sync_file_range(descriptor_.Number(), 0, 0, SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER) !=
                0 &&
            errno != ENOSYS && errno != EPERM && errno != EINVAL) {
            throw SyncError(path_, errno);
        }
    }

    std::uint64_t Size() const override {
        struct stat status {};
        if (fstat(descriptor_.Number(), &status) != 0) {
            Fail("look at", path_);
        }
        return static_cast<std::uint64_t>(status.st_size);
    }

private:
    const std::string path_;
    const Descriptor descriptor_;
};

class PosixFolder : public IFolder {
public:
    explicit PosixFolder(const std::string& path) : path_(path), folder_(path) {}

    std::unique_ptr<IFile> Open(const std::string& name, OpenMode mode) const override {
        return std::make_unique<PosixFile>(folder_, name, path_ + '/' + name, mode);
    }

private:
    const std::string path_;
    const Folder folder_;
};

class PosixFolderLock : public IFolderLock {
public:
    explicit PosixFolderLock(const std::string& path) : folder_(path) {}
    // Of the open folder, not of the process: two stores in one process keep each other out, too.
    bool Try() const { return flock(folder_.Number(), LOCK_EX | LOCK_NB) == 0; }

private:
    const Folder folder_;
};

class PosixFiles : public IFileSystem {
public:
    std::unique_ptr<IFile> Open(const std::string& path, OpenMode mode) override {
        return std::make_unique<PosixFile>(Folder(FolderOf(path)), NameOf(path), path, mode);
    }

    std::unique_ptr<IFolder> OpenFolder(const std::string& path) override {
        return std::make_unique<PosixFolder>(path);
    }

    std::unique_ptr<IFolderLock> TryLockFolder(const std::string& path) override {
        auto lock = std::make_unique<PosixFolderLock>(path);
        if (lock->Try()) {
            return lock;
        }
        if (errno != EWOULDBLOCK) {
            Fail("lock", path);
        }
        return nullptr;
    }

    void MakeFolder(const std::string& path) override {
        if (mkdir(path.c_str(), 0755) == 0) {
            return;
        }
        const int error = errno; // EROFS comes even where it is there.
        struct stat status {};
        if (lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            throw FileError("make the folder", path, error);
        }
    }

    std::vector<std::string> List(const std::string& folder) const override {
        const Folder held(folder);
        const int number = fcntl(held.Number(), F_DUPFD_CLOEXEC, 0); // closedir closes its own.
        const std::unique_ptr<DIR, int (*)(DIR*)> open(number < 0 ? nullptr : fdopendir(number), closedir);
        if (open == nullptr) {
            const int error = errno;
            if (number >= 0) {
                close(number);
            }
            throw FileError("list", folder, error);
        }
        std::vector<std::string> names;
        for (;;) {
            errno = 0;
            const dirent* const entry = readdir(open.get());
            if (entry == nullptr) {
                break;
            }
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        if (errno != 0) {
            Fail("list", folder);
        }
        return names;
    }

    bool Exists(const std::string& path) const override {
        struct stat status {};
        if (lstat(path.c_str(), &status) == 0) {
            return true;
        }
        if (errno != ENOENT && errno != ENOTDIR) {
            Fail("look at", path);
        }
        return false;
    }

    void Rename(const std::string& from, const std::string& to) override {
        const Folder source(FolderOf(from));
        const Folder target(FolderOf(to));
        if (renameat(source.Number(), NameOf(from).c_str(), target.Number(), NameOf(to).c_str()) != 0) {
            Fail("rename to " + to + " what is", from);
        }
    }

    void Remove(const std::string& path) override {
        const Folder folder(FolderOf(path));
        if (unlinkat(folder.Number(), NameOf(path).c_str(), 0) != 0 && errno != ENOENT) {
            Fail("remove", path);
        }
    }

    void SyncFolder(const std::string& path) override {
        const Descriptor folder(path, O_RDONLY | O_DIRECTORY); // The parent of a store may be behind a link.
        if (fsync(folder.Number()) != 0) {
            throw SyncError(path, errno);
        }
    }

    /// Syncs that wait at the same time share one transaction of the file system's journal, and its flushes.
    void Together(const std::vector<std::function<void()>>& syncs) override {
        std::vector<std::future<void>> others;
        std::vector<std::function<void()>> here;
        for (const auto& sync : syncs) {
            try {
                if (here.empty()) {
                    here.push_back(sync);
                } else {
                    others.push_back(std::async(std::launch::async, sync));
                }
            } catch (const std::system_error&) {
                here.push_back(sync); // There is no thread to be had.
            }
        }
        for (std::future<void>& other : others) {
            here.emplace_back([&other] { other.get(); });
        }
        IFileSystem::Together(here);
    }

    Space GetSpace(const std::string& path) const override {
        struct statvfs figures {};
        if (statvfs(path.c_str(), &figures) != 0) {
            Fail("ask for the free space of", path);
        }
        const std::uint64_t block = figures.f_frsize;
        const std::uint64_t used = (figures.f_blocks - figures.f_bfree) * block;
        const std::uint64_t free = figures.f_bavail * block;
        return {used + free, free};
    }

    std::uint64_t DeviceOf(const std::string& path) const override { return StatusOf(path).st_dev; }
};

} // namespace

IFileSystem& PosixFileSystem() {
    static PosixFiles files;
    return files;
}

} // namespace drenn::multi_track_recorder
