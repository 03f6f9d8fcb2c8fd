#include "drenn/multi_track_recorder/internal/recovery/StoreRebuilding.h"

#include <stdexcept>

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/Rebuilder.h"

namespace drenn::multi_track_recorder {
namespace {

/// The identity that a catalogue has which is whole; all zero for others. Throws when a later program made it.
StoreId WholeCatalogue(IFileSystem& files, const StoreFolders& folders) {
    if (!files.Exists(folders.Catalogue())) {
        return {};
    }
    const SqliteVfs vfs(files, SqliteVfs::Access::ReadOnly);
    std::unique_ptr<Catalogue> catalogue;
    try {
        catalogue = std::make_unique<Catalogue>(folders.Catalogue(), vfs.Name(), Catalogue::Mode::ReadOnly);
        if (!catalogue->Check().empty()) {
            return {};
        }
        catalogue->Load();
    } catch (const std::exception&) {
        return {}; // That is why it is to be made anew.
    }
    catalogue->RequireVersion();
    return catalogue->GetId();
}

/// The catalogue is whole: only the file beside the segments may be missing.
void RebuildIdentity(IFileSystem& files, const StoreFolders& folders, const StoreId& whole) {
    StoreId id{};
    try {
        id = ReadIdentity(files, folders.Identity());
    } catch (const std::exception&) {
        WriteIdentity(files, folders, whole); // It is lost or damaged.
        return;
    }
    throw std::runtime_error(
        id == whole ? "The catalogue " + folders.Catalogue() + " is whole; there is nothing to rebuild"
                    : folders.storage + " and " + folders.database + " belong to different stores");
}

/// The new catalogue takes the place of the old one, which is set aside: first its log, which must not meet the new one.
void ReplaceCatalogue(IFileSystem& files, const StoreFolders& folders, const std::string& made) {
    const std::string aside = FreeAsidePath(files, folders.Catalogue());
    for (const char* suffix : kDatabaseFiles) {
        if (files.Exists(folders.Catalogue() + suffix)) {
            files.Rename(folders.Catalogue() + suffix, aside + suffix);
            files.SyncFolder(folders.database);
        }
    }
    files.Rename(made, folders.Catalogue());
    files.SyncFolder(folders.database);
}

void WriteNew(IFileSystem& files, const StoreFolders& folders, Rebuilder& rebuilder,
              const std::string& made) {
    RemoveDatabase(files, made);
    files.Remove(folders.Reserve()); // It is for this, too.
    try {
        rebuilder.Write(made);
    } catch (const FileError& error) {
        RemoveDatabase(files, made);
        if (!error.IsOutOfSpace()) {
            throw;
        }
        throw std::runtime_error(std::string(error.what()) + "; the new catalogue takes about " +
                                 std::to_string(rebuilder.Estimate()) + " bytes, and " +
                                 std::to_string(files.GetSpace(folders.database).free) + " are free");
    } catch (const std::exception&) {
        RemoveDatabase(files, made);
        throw;
    }
}

} // namespace

std::vector<std::string> RebuildStore(IFileSystem& files, const std::string& storage,
                                      const std::string& database) {
    const StoreFolders folders{storage, database};
    files.MakeFolder(database); // It may be lost with the catalogue.
    const StoreLock lock = LockStore(files, folders);
    const StoreId whole = WholeCatalogue(files, folders);
    if (whole != StoreId{}) {
        RebuildIdentity(files, folders, whole);
        return {};
    }
    Rebuilder rebuilder(files, folders);
    const std::string made = folders.Catalogue() + ".new";
    WriteNew(files, folders, rebuilder, made);
    for (const SegmentKey& segment : rebuilder.Unusable()) {
        files.Rename(folders.PathOf(segment), FreeAsidePath(files, folders.PathOf(segment)));
    }
    files.SyncFolder(folders.storage);
    ReplaceCatalogue(files, folders, made);
    WriteIdentity(files, folders, rebuilder.Id());
    return rebuilder.Lost();
}

} // namespace drenn::multi_track_recorder
