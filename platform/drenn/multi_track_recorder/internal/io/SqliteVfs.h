#pragma once

#include <memory>

namespace drenn::multi_track_recorder {

class IFileSystem;

/// Lets SQLite do its file operations through an IFileSystem, for one connection with exclusive locking: there
/// is neither shared memory nor a lock in here.
///
/// Threads:   as SQLite calls it.
/// Ownership: the file system stays the caller's; it and this object outlive the databases that were opened.
class SqliteVfs {
public:
    explicit SqliteVfs(IFileSystem& files);
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
