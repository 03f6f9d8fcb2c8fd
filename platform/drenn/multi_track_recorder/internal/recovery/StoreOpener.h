#pragma once

#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/Opening.h"

namespace drenn::multi_track_recorder {

/// Opens a store as far as its device allows: for changes, unless that is not wanted, or else to be read.
///
/// Threads:  one at a time.
/// Errors:   std::runtime_error or FileError when it cannot be read either: why it could not be opened for changes.
/// Lifetime: outlives the catalogues of what it opened; `files` outlives it.
class StoreOpener {
public:
    StoreOpener(IFileSystem& files, const StoreFolders& folders, bool readOnly);

    /// Makes the store if it is not there. One that can only be read has the reason in `readOnly`.
    OpenedStore Open();

private:
    OpenedStore OpenForChanges();

    IFileSystem& files_;
    const StoreFolders folders_;
    const bool readOnly_; ///< Nothing is to be changed.
    SqliteVfs vfs_;
    SqliteVfs readingVfs_;
};

} // namespace drenn::multi_track_recorder
