#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "drenn/multi_track_recorder/internal/format/SegmentFormat.h"
#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"

namespace drenn::multi_track_recorder {

namespace {

constexpr int kLongestPath = 4096; // PATH_MAX.
constexpr int kSectorBytes = 4096; // What a power cut may tear apart is smaller on no card.
// A log begins with so many zeros, which SQLite takes for its end: to make durable what is written within a file takes one flush of
// the device, and two where the file grows.
constexpr std::size_t kFirstLogBytes = 1U << 16U;

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

/// What a registered VFS refers to.
struct Way {
    IFileSystem& files;
    const bool isReadOnly;
};

/// What SQLite allocates for a file; the rest is made in place.
struct OpenFile {
    sqlite3_file base; // First: SQLite knows only this.
    IFileSystem* files;
    std::unique_ptr<IFile> file;
    std::string path;
    bool deleteOnClose;
    bool folderToSync; // The file is new.
    bool isDatabase;   // And no log.
    bool hasChecksums; // Of a database, once its header was seen.
};

OpenFile& Of(sqlite3_file* file) {
    return *reinterpret_cast<OpenFile*>(file);
}

const Way& Of(sqlite3_vfs* vfs) {
    return *static_cast<const Way*>(vfs->pAppData);
}

/// Stands for a log that is not there, where none may be made.
class NoFile : public IFile {
public:
    explicit NoFile(std::string path) : path_(std::move(path)) {}
    std::size_t Read(std::uint64_t, void*, std::size_t) const override { return 0; }
    void Write(std::uint64_t, const void*, std::size_t) override { Refuse(); }
    void Truncate(std::uint64_t) override { Refuse(); }
    void Reserve(std::uint64_t) override { Refuse(); }
    void Sync() override {} // Nothing was written.
    std::uint64_t Size() const override { return 0; }

private:
    [[noreturn]] void Refuse() const { throw FileError("write", path_, EROFS); }
    const std::string path_;
};

constexpr std::size_t kSmallestPage = 512;

/// Two witnesses, since a bit of the header may be damaged: that pages have room for a checksum, and the version.
bool TellsOfChecksums(const unsigned char* header) {
    unsigned int version = 0;
    for (const unsigned char* byte = header + 60; byte != header + 64; ++byte) {
        version = version << 8U | *byte;
    }
    return header[20] == SqliteVfs::kReservedBytes || version >= SqliteVfs::kChecksummedVersion;
}

void LookAtHeader(OpenFile& open, std::uint64_t offset, const void* bytes, std::size_t length) {
    if (open.isDatabase && offset == 0 && length >= 100) {
        open.hasChecksums = TellsOfChecksums(static_cast<const unsigned char*>(bytes));
    }
}

bool IsPage(const OpenFile& open, std::uint64_t offset, std::size_t length) {
    return open.hasChecksums && length >= kSmallestPage && offset % length == 0;
}

/// The seed ties a page to its place.
std::uint64_t PageChecksum(const unsigned char* page, std::size_t length, std::uint64_t offset) {
    return ChecksumOf(page, length - SqliteVfs::kReservedBytes, offset);
}

/// A page that was never written is zeros; it is none of the database's as long as nothing refers to it.
bool PageChecks(const unsigned char* page, std::size_t length, std::uint64_t offset) {
    ByteReader end(page + length - SqliteVfs::kReservedBytes, SqliteVfs::kReservedBytes);
    return end.U64() == PageChecksum(page, length, offset) ||
           (offset != 0 && std::all_of(page, page + length, [](unsigned char byte) { return byte == 0; }));
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
        const auto place = static_cast<uint64_t>(offset);
        const size_t got = Of(file).file->Read(place, bytes, wanted);
        auto* const page = static_cast<unsigned char*>(bytes);
        std::memset(page + got, 0, wanted - got); // SQLite relies on this.
        if (got != wanted) {
            return SQLITE_IOERR_SHORT_READ;
        }
        LookAtHeader(Of(file), place, bytes, wanted);
        const bool checks = !IsPage(Of(file), place, wanted) || PageChecks(page, wanted, place);
        return checks ? SQLITE_OK : SQLITE_CORRUPT;
    });
}

int Write(sqlite3_file* file, const void* bytes, int length, sqlite3_int64 offset) {
    return Guard(SQLITE_IOERR_WRITE, [=] {
        OpenFile& open = Of(file);
        const auto size = static_cast<size_t>(length);
        const auto place = static_cast<uint64_t>(offset);
        LookAtHeader(open, place, bytes, size);
        if (!IsPage(open, place, size)) {
            open.file->Write(place, bytes, size);
            return SQLITE_OK;
        }
        const auto* const begin = static_cast<const unsigned char*>(bytes);
        Bytes page(begin, begin + size - SqliteVfs::kReservedBytes);
        ByteWriter(page).U64(PageChecksum(begin, size, place));
        open.file->Write(place, page.data(), page.size());
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

int FileControl(sqlite3_file* file, int operation, void*) {
    if (operation != SqliteVfs::kWriteOut) {
        return SQLITE_NOTFOUND;
    }
    return Guard(SQLITE_IOERR_FSYNC, [file] {
        Of(file).file->WriteOut();
        return SQLITE_OK;
    });
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
        const Way& way = Of(vfs);
        const bool exists = way.files.Exists(name);
        const bool create = (flags & SQLITE_OPEN_CREATE) != 0 && !way.isReadOnly;
        const OpenMode mode = way.isReadOnly || (flags & SQLITE_OPEN_READONLY) != 0 ? OpenMode::Read
                              : create                                              ? OpenMode::Create
                                                                                    : OpenMode::ReadWrite;
        const bool isDatabase = (flags & SQLITE_OPEN_MAIN_DB) != 0;
        std::unique_ptr<IFile> opened = way.isReadOnly && !isDatabase && !exists
                                            ? std::make_unique<NoFile>(name)
                                            : way.files.Open(name, mode);
        const bool deleteOnClose = (flags & SQLITE_OPEN_DELETEONCLOSE) != 0 && !way.isReadOnly;
        if ((flags & SQLITE_OPEN_WAL) != 0 && create && !exists) {
            const Bytes zeros(kFirstLogBytes);
            opened->Write(0, zeros.data(), zeros.size());
        }
        new (file) OpenFile{{&kMethods},   &way.files,        std::move(opened), name,
                            deleteOnClose, create && !exists, isDatabase,        false};
        if (flagsOut != nullptr) {
            *flagsOut = mode == OpenMode::Read
                            ? (flags & ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)) | SQLITE_OPEN_READONLY
                            : flags;
        }
        return SQLITE_OK;
    });
}

int Delete(sqlite3_vfs* vfs, const char* path, int syncFolder) {
    return Guard(SQLITE_IOERR_DELETE, [=] {
        const Way& way = Of(vfs);
        if (way.isReadOnly) {
            return SQLITE_IOERR_DELETE;
        }
        way.files.Remove(path);
        if (syncFolder != 0) {
            way.files.SyncFolder(FolderOf(path));
        }
        return SQLITE_OK;
    });
}

int LookFor(sqlite3_vfs* vfs, const char* path, int, int* result) {
    return Guard(SQLITE_IOERR_ACCESS, [=] {
        *result = Of(vfs).files.Exists(path) ? 1 : 0;
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
    Registration(IFileSystem& files, SqliteVfs::Access access)
        : way_{files, access == Access::ReadOnly}, name_(NextName()), vfs_() {
        vfs_.iVersion = 1;
        vfs_.szOsFile = sizeof(OpenFile);
        vfs_.mxPathname = kLongestPath;
        vfs_.zName = name_.c_str();
        vfs_.pAppData = const_cast<Way*>(&way_); // SQLite hands it back; it is read only.
        vfs_.xOpen = &Open;
        vfs_.xDelete = &Delete;
        vfs_.xAccess = &LookFor;
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
    const Way way_;
    const std::string name_;
    sqlite3_vfs vfs_;
};

SqliteVfs::SqliteVfs(IFileSystem& files, Access access)
    : registration_(std::make_unique<Registration>(files, access)) {}

SqliteVfs::~SqliteVfs() = default;

const char* SqliteVfs::Name() const {
    return registration_->Name();
}

} // namespace drenn::multi_track_recorder
