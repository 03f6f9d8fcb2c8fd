#include "drenn/multi_track_recorder/internal/recovery/StoreOpener.h"

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

StoreOpener::StoreOpener(IFileSystem& files, const StoreFolders& folders, bool readOnly)
    : files_(files),
      folders_(folders),
      readOnly_(readOnly),
      vfs_(files),
      readingVfs_(files, SqliteVfs::Access::ReadOnly) {}

OpenedStore StoreOpener::Open() {
    if (readOnly_) {
        return OpenStoreToRead(files_, folders_, readingVfs_.Name());
    }
    bool lacksRoom = false;
    try {
        try {
            return OpenForChanges();
        } catch (const FileError& error) {
            lacksRoom = error.IsOutOfSpace();
            throw;
        }
    } catch (const std::exception& error) {
        try {
            OpenedStore opened = OpenStoreToRead(files_, folders_, readingVfs_.Name());
            opened.readOnly = error.what();
            opened.lacksRoom = lacksRoom;
            return opened;
        } catch (const std::exception&) {
            // The first error tells more.
        }
        throw;
    }
}

/// Without room, what is held back and what was set aside is given up for it.
OpenedStore StoreOpener::OpenForChanges() {
    try {
        return OpenStore(files_, folders_, vfs_.Name());
    } catch (const FileError& error) {
        if (!error.IsOutOfSpace()) {
            throw;
        }
    }
    files_.Remove(folders_.Reserve());
    for (const std::string& path : ListAside(files_, folders_)) {
        files_.Remove(path);
    }
    return OpenStore(files_, folders_, vfs_.Name());
}

} // namespace drenn::multi_track_recorder
