// The files of the operating system: what they ask of it, and what they make of its answers. Calls go through the
// functions below, which this program has in place of the C library's.

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"
#include "support/TempFolder.h"
#include "support/ThrownText.h"

using namespace drenn::multi_track_recorder;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

struct System {
    int syncError = 0;
    int writeError = 0;
    int interrupted = 0;                ///< So many writes and reads are interrupted first.
    std::size_t most = ~std::size_t{0}; ///< What one write takes, or one read gives.
    std::vector<std::string> syncs;
};
System* system_ = nullptr; // Only while a test here asks for it.

std::string NameOf(int file) {
    char path[512] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(file);
    return readlink(link.c_str(), path, sizeof path - 1) < 0
               ? ""
               : std::string(path).substr(std::string(path).rfind('/') + 1);
}

template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int Sync(const char* name, int file) {
    if (system_ == nullptr) {
        return Real<int(int)>(name)(file);
    }
    system_->syncs.push_back(std::string(name) + " " + NameOf(file));
    errno = system_->syncError;
    return errno == 0 ? 0 : -1;
}

bool IsInterrupted() {
    errno = EINTR;
    return system_ != nullptr && system_->interrupted-- > 0;
}

} // namespace

extern "C" {
int fdatasync(int file) {
    return Sync("fdatasync", file);
}
int fsync(int file) {
    return Sync("fsync", file);
}
int sync_file_range(int file, off64_t offset, off64_t count, unsigned int flags) {
    if (system_ == nullptr || flags == SYNC_FILE_RANGE_WRITE) {
        return Real<int(int, off64_t, off64_t, unsigned int)>("sync_file_range")(file, offset, count, flags);
    }
    return Sync("sync_file_range", file);
}
ssize_t pwrite64(int file, const void* bytes, size_t count, off64_t offset) {
    if (IsInterrupted()) {
        return -1;
    }
    if (system_ != nullptr && system_->writeError != 0) {
        errno = system_->writeError;
        return -1;
    }
    const std::size_t most = system_ == nullptr ? count : std::min(count, system_->most);
    return Real<ssize_t(int, const void*, size_t, off64_t)>("pwrite64")(file, bytes, most, offset);
}
ssize_t pread64(int file, void* bytes, size_t count, off64_t offset) {
    if (IsInterrupted()) {
        return -1;
    }
    const std::size_t most = system_ == nullptr ? count : std::min(count, system_->most);
    return Real<ssize_t(int, void*, size_t, off64_t)>("pread64")(file, bytes, most, offset);
}
}

class PosixFiles : public testing::Test {
protected:
    PosixFiles() { system_ = &system; }
    ~PosixFiles() override { system_ = nullptr; }

    const TempFolder folder;
    System system;
    IFileSystem& files = PosixFileSystem();
};

TEST_F(PosixFiles, AskForWhatMakesDurable) {
    const auto file = files.Open(folder.Path("file"), OpenMode::CreateNew);
    file->Write(0, "x", 1);
    file->WriteOut();
    file->Sync();
    files.MakeFolder(folder.Path("inside"));
    files.SyncFolder(folder.Path("inside"));
    EXPECT_THAT(system.syncs, ElementsAre("sync_file_range file", "fdatasync file", "fsync inside"));
    for (const int error : {EIO, ENOSPC, EDQUOT}) {
        system.syncError = error;
        for (const std::function<void()>& sync :
             std::vector<std::function<void()>>{[&] { file->Sync(); }, [&] { file->WriteOut(); },
                                                [&] { files.SyncFolder(folder.Path("inside")); }}) {
            try {
                sync();
                ADD_FAILURE() << "an error was ignored";
            } catch (const SyncError& failure) {
                EXPECT_EQ(failure.GetError(), error);
                EXPECT_FALSE(failure.IsOutOfSpace());
            }
        }
    }
}

TEST_F(PosixFiles, LeaveToSyncWhatTheKernelDoesNotLetBeWrittenOut) {
    const auto file = files.Open(folder.Path("file"), OpenMode::CreateNew);
    for (const int error : {ENOSYS, EPERM, EINVAL}) {
        system.syncError = error;
        EXPECT_NO_THROW(file->WriteOut());
        EXPECT_THROW(file->Sync(), SyncError);
    }
}

TEST_F(PosixFiles, WriteAndReadAllOrFail) {
    const auto file = files.Open(folder.Path("file"), OpenMode::CreateNew);
    const std::string text = "0123456789";
    system.most = 3;
    system.interrupted = 2;
    file->Write(2, text.data(), text.size());
    char read[20] = {};
    system.interrupted = 2;
    EXPECT_EQ(file->Read(2, read, sizeof read), text.size());
    EXPECT_EQ(std::string(read), text);
    EXPECT_EQ(file->Size(), 12U);
    for (const int error : {ENOSPC, EDQUOT, EIO}) {
        system.writeError = error;
        try {
            file->Write(0, "x", 1);
            ADD_FAILURE() << "an error was ignored";
        } catch (const FileError& failure) {
            EXPECT_EQ(failure.IsOutOfSpace(), error != EIO);
            EXPECT_THAT(failure.what(), HasSubstr(folder.Path("file")));
        }
    }
}

TEST_F(PosixFiles, NameWhatTheyCannotDo) {
    EXPECT_THAT(ThrownText<FileError>([&] { files.Open(folder.Path("none"), OpenMode::Read); }),
                HasSubstr("none"));
    EXPECT_THAT(ThrownText<FileError>([&] { files.Rename(folder.Path("none"), folder.Path("other")); }),
                HasSubstr("none"));
    EXPECT_THAT(ThrownText<FileError>([&] { files.List(folder.Path("none")); }), HasSubstr("none"));
    EXPECT_THAT(ThrownText<FileError>([&] { files.MakeFolder(folder.Path("no/ne")); }), HasSubstr("no/ne"));
    files.Remove(folder.Path("none")); // That is as it should be.
    const auto file = files.Open(folder.Path("file"), OpenMode::CreateNew);
    EXPECT_THROW(files.Open(folder.Path("file"), OpenMode::CreateNew), FileError);
    EXPECT_THROW(files.Open(folder.Path("file"), OpenMode::Read)->Write(0, "x", 1), FileError);
    file->Write(0, "0123", 4);
    file->Truncate(2);
    EXPECT_EQ(file->Size(), 2U);
    files.Rename(folder.Path("file"), folder.Path("renamed"));
    EXPECT_THAT(files.List(folder.Path()), ElementsAre("renamed"));
    EXPECT_FALSE(files.Exists(folder.Path("file")));
    std::filesystem::create_symlink(folder.Path("renamed"), folder.Path("link"));
    for (const OpenMode mode : {OpenMode::Read, OpenMode::ReadWrite, OpenMode::Create}) {
        EXPECT_THAT(ThrownText<FileError>([&] { files.Open(folder.Path("link"), mode); }), HasSubstr("link"));
    }
    const auto held = files.OpenFolder(folder.Path());
    EXPECT_EQ(held->Open("renamed", OpenMode::Read)->Size(), 2U);
    EXPECT_THAT(ThrownText<FileError>([&] { held->Open("link", OpenMode::Read); }),
                HasSubstr(folder.Path("link")));
    std::filesystem::create_directory_symlink(folder.Path(), folder.Path("folder"));
    EXPECT_THROW(files.OpenFolder(folder.Path("folder")), FileError);
    EXPECT_TRUE(files.Exists(folder.Path("link")));
    ASSERT_EQ(mkfifo(folder.Path("fifo").c_str(), 0600), 0);
    EXPECT_THAT(ThrownText<FileError>([&] { files.Open(folder.Path("fifo"), OpenMode::ReadWrite); }),
                HasSubstr("no regular file"));
    const auto lock = files.TryLockFolder(folder.Path());
    EXPECT_NE(lock, nullptr);
    EXPECT_EQ(files.TryLockFolder(folder.Path()), nullptr);
}

TEST_F(PosixFiles, DoAllSyncsAndTellTheFirstThatFails) {
    std::atomic<int> done{0};
    const auto fail = [&](int error) {
        ++done;
        throw SyncError("file", error);
    };
    const auto together = [&] { files.Together({[&] { ++done; }, [&] { fail(EIO); }, [&] { ++done; }}); };
    EXPECT_THROW(together(), SyncError);
    EXPECT_EQ(done, 3);
    // Without threads, one after the other.
    EXPECT_THROW(files.IFileSystem::Together({[&] { fail(EIO); }, [&] { ++done; }}), SyncError);
    EXPECT_EQ(done, 5);
}
