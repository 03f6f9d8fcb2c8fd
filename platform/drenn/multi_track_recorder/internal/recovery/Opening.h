#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/internal/io/Catalogue.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

/// The two folders of a store.
struct StoreFolders {
    std::string storage;
    std::string database;

    std::string Catalogue() const { return database + "/catalogue"; }
    std::string Identity() const { return storage + "/store"; }
    std::string Directories() const { return database + "/directories"; }
    std::string Reserve() const { return database + "/reserve"; }
    std::string PathOf(SegmentKey segment) const;
};

/// Keeps other processes, and other stores of this one, out of both folders.
struct StoreLock {
    std::unique_ptr<IFolderLock> storage;
    std::unique_ptr<IFolderLock> database;
};
/// Throws std::runtime_error when another process has the store open. A folder that is not there is not locked.
StoreLock LockStore(IFileSystem& files, const StoreFolders& folders);

/// The name of a segment's file, and back; nothing for other names.
std::string FileNameOf(SegmentKey segment);
std::optional<SegmentKey> SegmentOf(const std::string& fileName);
/// The segments in a folder, in their order.
std::vector<SegmentKey> ListSegments(const IFileSystem& files, const std::string& folder);

/// Paths of what was set aside: segments of which nothing could be read, and catalogues that were made anew. They give way before any
/// segment does.
std::vector<std::string> ListAside(const IFileSystem& files, const StoreFolders& folders);
/// Where a file can be set aside.
std::string FreeAsidePath(const IFileSystem& files, const std::string& path);

/// What SQLite adds to the name of a database for its files, in the order in which one is set aside: no log may meet a
/// database that it does not belong to.
inline constexpr std::array<const char*, 3> kDatabaseFiles = {"-wal", "-journal", ""};
/// Whether any of them is there.
bool HasDatabase(const IFileSystem& files, const std::string& path);
void RemoveDatabase(IFileSystem& files, const std::string& path);

/// The identity in the file `data/store`. Throws std::runtime_error when it is damaged, LaterVersionError.
StoreId ReadIdentity(IFileSystem& files, const std::string& path);
/// Durable when it returns.
void WriteIdentity(IFileSystem& files, const StoreFolders& folders, const StoreId& id);

/// A store whose files are open and recovered.
struct OpenedStore {
    StoreLock lock;
    std::shared_ptr<Catalogue> catalogue;
    StoreId id{};
    CatalogueContent content;
    std::map<std::uint32_t, std::uint32_t> nextSequences; ///< Of lanes.
    std::vector<std::string> told;                        ///< What was found damaged, one line each.
    std::string readOnly;                                 ///< Why it cannot be changed; empty if it can.
    bool lacksRoom = false;                               ///< For want of room.
    bool hasIdentity = true; ///< False where it is opened to be read without the file, or with a damaged one.
};

/// Takes the lock, makes the store if it is not there, recovers what the last process left. `vfs`: a SqliteVfs for changes.
/// Throws std::runtime_error when another process has it, when a later program wrote it, or when the folders do not
/// belong together; nothing was changed then.
OpenedStore OpenStore(IFileSystem& files, const StoreFolders& folders, const char* vfs);
/// The same without a change on the device, as far as it can be read: without an identity, or one that is damaged, the
/// catalogue's is taken. `vfs`: one that is read-only.
OpenedStore OpenStoreToRead(IFileSystem& files, const StoreFolders& folders, const char* vfs);

} // namespace drenn::multi_track_recorder
