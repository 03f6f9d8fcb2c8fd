#include <sqlite3.h>

#include <atomic>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"

namespace drenn::multi_track_recorder {

namespace {

constexpr int kLongestPath = 512;
constexpr int kSectorBytes = 4096; // What a power cut may tear apart is smaller on no card.

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

/// What SQLite allocates for a file; the rest is made in place.
struct OpenFile {
    sqlite3_file base; // First: SQLite knows only this.
    IFileSystem* files;
    std::unique_ptr<IFile> file;
    std::string path;
    bool deleteOnClose;
    bool folderToSync; // The file is new.
};

OpenFile& Of(sqlite3_file* file) {
    return *reinterpret_cast<OpenFile*>(file);
}

IFileSystem& Of(sqlite3_vfs* vfs) {
    return *static_cast<IFileSystem*>(vfs->pAppData);
}

// Runs an operation; gives SQLite's code for its failure. Nothing may be thrown through SQLite.
template <typename Operation>
int Guard(int failure, const Operation& operation) {
    try {
        return operation();
    } catch (const FileError& error) {
        return error.IsOutOfSpace() ? SQLITE_FULL : failure;
    } catch (const std::bad_alloc&) {
        return SQLITE_NOMEM;
    } catch (...) {
        return failure;
    }
}

int Close(sqlite3_file* file) {
    OpenFile& open = Of(file);
    return Guard(SQLITE_IOERR_CLOSE, [&open] {
        const std::string path = open.deleteOnClose ? open.path : "";
        IFileSystem* const files = open.files;
        open.~OpenFile();
        if (!path.empty()) {
            files->Remove(path);
        }
        return SQLITE_OK;
    });
}

int Read(sqlite3_file* file, void* bytes, int length, sqlite3_int64 offset) {
    return Guard(SQLITE_IOERR_READ, [=] {
        const auto wanted = static_cast<size_t>(length);
        const size_t got = Of(file).file->Read(static_cast<uint64_t>(offset), bytes, wanted);
        std::memset(static_cast<unsigned char*>(bytes) + got, 0, wanted - got); // SQLite relies on this.
        return got == wanted ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
    });
}

int Write(sqlite3_file* file, const void* bytes, int length, sqlite3_int64 offset) {
    return Guard(SQLITE_IOERR_WRITE, [=] {
        Of(file).file->Write(static_cast<uint64_t>(offset), bytes, static_cast<size_t>(length));
        return SQLITE_OK;
    });
}

int Truncate(sqlite3_file* file, sqlite3_int64 length) {
    return Guard(SQLITE_IOERR_TRUNCATE, [=] {
        Of(file).file->Truncate(static_cast<uint64_t>(length));
        return SQLITE_OK;
    });
}

int Sync(sqlite3_file* file, int) {
    return Guard(SQLITE_IOERR_FSYNC, [file] {
        OpenFile& open = Of(file);
        open.file->Sync();
        if (std::exchange(open.folderToSync, false)) {
            open.files->SyncFolder(FolderOf(open.path));
        }
        return SQLITE_OK;
    });
}

int FileSize(sqlite3_file* file, sqlite3_int64* size) {
    return Guard(SQLITE_IOERR_FSTAT, [=] {
        *size = static_cast<sqlite3_int64>(Of(file).file->Size());
        return SQLITE_OK;
    });
}

int Lock(sqlite3_file*, int) {
    return SQLITE_OK;
}

int CheckReservedLock(sqlite3_file*, int* reserved) {
    *reserved = 0;
    return SQLITE_OK;
}

int FileControl(sqlite3_file*, int, void*) {
    return SQLITE_NOTFOUND;
}

int SectorSize(sqlite3_file*) {
    return kSectorBytes;
}

int DeviceCharacteristics(sqlite3_file*) {
    return 0;
}

const sqlite3_io_methods kMethods = {1,
                                     Close,
                                     Read,
                                     Write,
                                     Truncate,
                                     Sync,
                                     FileSize,
                                     Lock,
                                     Lock,
                                     CheckReservedLock,
                                     FileControl,
                                     SectorSize,
                                     DeviceCharacteristics,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr};

int Open(sqlite3_vfs* vfs, sqlite3_filename name, sqlite3_file* file, int flags, int* flagsOut) {
    file->pMethods = nullptr; // Nothing to close if this fails.
    if (name == nullptr) {
        return SQLITE_CANTOPEN; // A temporary file; temporary data is kept in memory.
    }
    return Guard(SQLITE_CANTOPEN, [=] {
        IFileSystem& files = Of(vfs);
        const bool create = (flags & SQLITE_OPEN_CREATE) != 0;
        const bool isNew = create && !files.Exists(name);
        const OpenMode mode = (flags & SQLITE_OPEN_READONLY) != 0 ? OpenMode::Read
                              : create                            ? OpenMode::Create
                                                                  : OpenMode::ReadWrite;
        std::unique_ptr<IFile> opened = files.Open(name, mode);
        new (file) OpenFile{
            {&kMethods}, &files, std::move(opened), name, (flags & SQLITE_OPEN_DELETEONCLOSE) != 0, isNew};
        if (flagsOut != nullptr) {
            *flagsOut = flags;
        }
        return SQLITE_OK;
    });
}

int Delete(sqlite3_vfs* vfs, const char* path, int syncFolder) {
    return Guard(SQLITE_IOERR_DELETE, [=] {
        Of(vfs).Remove(path);
        if (syncFolder != 0) {
            Of(vfs).SyncFolder(FolderOf(path));
        }
        return SQLITE_OK;
    });
}

int Access(sqlite3_vfs* vfs, const char* path, int, int* result) {
    return Guard(SQLITE_IOERR_ACCESS, [=] {
        *result = Of(vfs).Exists(path) ? 1 : 0;
        return SQLITE_OK;
    });
}

int FullPathname(sqlite3_vfs*, const char* path, int capacity, char* out) {
    const size_t length = std::strlen(path);
    if (length >= static_cast<size_t>(capacity)) {
        return SQLITE_CANTOPEN;
    }
    std::memcpy(out, path, length + 1);
    return SQLITE_OK;
}

// Time and randomness are the system's.
sqlite3_vfs& SystemVfs() {
    return *sqlite3_vfs_find(nullptr);
}

int Randomness(sqlite3_vfs*, int length, char* out) {
    return SystemVfs().xRandomness(&SystemVfs(), length, out);
}

int Sleep(sqlite3_vfs*, int microseconds) {
    return SystemVfs().xSleep(&SystemVfs(), microseconds);
}

int CurrentTime(sqlite3_vfs*, double* time) {
    return SystemVfs().xCurrentTime(&SystemVfs(), time);
}

int GetLastError(sqlite3_vfs*, int, char*) {
    return 0;
}

std::string NextName() {
    static std::atomic<unsigned int> last{0};
    return "multi-track-recorder-" + std::to_string(++last);
}

} // namespace

class SqliteVfs::Registration {
public:
    explicit Registration(IFileSystem& files) : name_(NextName()), vfs_() {
        vfs_.iVersion = 1;
        vfs_.szOsFile = sizeof(OpenFile);
        vfs_.mxPathname = kLongestPath;
        vfs_.zName = name_.c_str();
        vfs_.pAppData = &files;
        vfs_.xOpen = &Open;
        vfs_.xDelete = &Delete;
        vfs_.xAccess = &Access;
        vfs_.xFullPathname = &FullPathname;
        vfs_.xRandomness = &Randomness;
        vfs_.xSleep = &Sleep;
        vfs_.xCurrentTime = &CurrentTime;
        vfs_.xGetLastError = &GetLastError;
        if (sqlite3_vfs_register(&vfs_, 0) != SQLITE_OK) {
            throw std::runtime_error("SQLite does not accept another way to its files");
        }
    }
    ~Registration() { sqlite3_vfs_unregister(&vfs_); }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    const char* Name() const { return vfs_.zName; }

private:
    const std::string name_;
    sqlite3_vfs vfs_;
};

SqliteVfs::SqliteVfs(IFileSystem& files) : registration_(std::make_unique<Registration>(files)) {}

SqliteVfs::~SqliteVfs() = default;

const char* SqliteVfs::Name() const {
    return registration_->Name();
}

} // namespace drenn::multi_track_recorder
