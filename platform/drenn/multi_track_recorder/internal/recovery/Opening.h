#pragma once

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
    std::string Lock() const { return database + "/lock"; }
    std::string Identity() const { return storage + "/store"; }
};

/// The name of a segment's file, and back; nothing for other names.
std::string FileNameOf(SegmentKey segment);
std::optional<SegmentKey> SegmentOf(const std::string& fileName);
/// The segments in a folder, in their order.
std::vector<SegmentKey> ListSegments(const IFileSystem& files, const std::string& folder);

/// The identity in the file `data/store`; throws std::runtime_error when it is damaged.
StoreId ReadIdentity(IFileSystem& files, const std::string& path);
/// Durable when it returns.
void WriteIdentity(IFileSystem& files, const StoreFolders& folders, const StoreId& id);

/// A store whose files are open and recovered.
struct OpenedStore {
    std::unique_ptr<IFile> lock;
    std::shared_ptr<Catalogue> catalogue;
    StoreId id{};
    CatalogueContent content;
    std::map<std::uint32_t, std::uint32_t> nextSequences; ///< Of lanes.
};

/// Takes the lock, makes the store if it is not there, recovers what the last process left.
/// Throws std::runtime_error when another process has it, or when the folders do not belong together.
OpenedStore OpenStore(IFileSystem& files, const StoreFolders& folders, const char* vfs);

} // namespace drenn::multi_track_recorder
