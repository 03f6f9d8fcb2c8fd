#pragma once

#include <memory>

namespace drenn::multi_track_recorder {

class IFileSystem;

/// Lets SQLite do its file operations through an IFileSystem, for one connection with exclusive locking: there
/// is neither shared memory nor a lock in here.
///
/// Each page of a database that has room for it (kReservedBytes at the end of every page) carries a checksum, which is
/// written with it and checked whenever it is read. A page that fails it is SQLITE_CORRUPT.
///
/// Threads:   as SQLite calls it.
/// Ownership: the file system stays the caller's; it and this object outlive the databases that were opened.
class SqliteVfs {
public:
    enum class Access {
        ReadWrite,
        ReadOnly ///< Makes, changes and removes nothing, so it works on a read-only mount.
    };
    static constexpr int kReservedBytes = 8;
    /// The user_version of a database whose pages carry checksums.
    static constexpr unsigned int kChecksummedVersion = 2;
    /// What to call a file's xFileControl with for IFile::WriteOut. Numbers up to 100 are SQLite's own.
    static constexpr int kWriteOut = 101;

    explicit SqliteVfs(IFileSystem& files, Access access = Access::ReadWrite);
    ~SqliteVfs();
    SqliteVfs(const SqliteVfs&) = delete;
    SqliteVfs& operator=(const SqliteVfs&) = delete;

    /// The name to open a database with. Other connections of the process do not get it by default.
    const char* Name() const;

private:
    class Registration;
    const std::unique_ptr<Registration> registration_;
};

} // namespace drenn::multi_track_recorder
