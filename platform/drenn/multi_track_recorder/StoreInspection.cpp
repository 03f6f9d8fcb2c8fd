#include "drenn/multi_track_recorder/StoreInspection.h"

#include <map>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/Store.h"
#include "drenn/multi_track_recorder/internal/Survivors.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/Opening.h"
#include "drenn/multi_track_recorder/internal/recovery/Rebuilder.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"

namespace drenn::multi_track_recorder {
namespace {

/// Keeps other processes out for as long as it lives.
std::unique_ptr<IFile> LockStore(IFileSystem& files, const StoreFolders& folders, OpenMode mode) {
    if (mode == OpenMode::Read && !files.Exists(folders.Lock())) {
        return nullptr; // Nobody can have it.
    }
    auto lock = files.Open(folders.Lock(), mode);
    if (!lock->TryLock()) {
        throw std::runtime_error("The store at " + folders.storage + " is open in another process");
    }
    return lock;
}

bool IsWhole(const StoreFolders& folders, const char* vfs) {
    try {
        Catalogue catalogue(folders.Catalogue(), vfs, Catalogue::Mode::ReadOnly);
        const bool isMade = catalogue.GetId() != StoreId{};
        catalogue.Load();
        return isMade && catalogue.Check().empty();
    } catch (const std::exception&) {
        return false;
    }
}

void RequireCatalogue(IFileSystem& files, const StoreFolders& folders) {
    if (!files.Exists(folders.Catalogue())) {
        throw std::runtime_error("There is no store: " + folders.Catalogue() + " is missing");
    }
}

boost::shared_ptr<Track> FindTrack(const Store& store, unsigned int id) {
    for (const auto& recording : store.GetRecordings()) {
        for (const auto& track : recording.lock()->getTracks()) { // The store keeps them.
            if (track.lock()->getId() == id) {
                return track.lock();
            }
        }
    }
    return nullptr;
}

void AddTracks(const CatalogueContent& content, StoreFacts& facts) {
    std::map<std::uint32_t, Survivors> survivors;
    for (const ExtentRow& extent : content.extents) {
        survivors[extent.track].Append({extent.firstSerial, extent.firstSerial + extent.count});
    }
    for (const ErasedRow& row : content.erased) {
        survivors[row.track].Erase(row.range);
    }
    for (const RecordingRow& recording : content.recordings) {
        facts.recordings.push_back({recording.id, recording.info, {}});
        for (const TrackRow& track : content.tracks) {
            if (track.recording == recording.id) {
                survivors[track.id].Erase({0, track.firstSerial});
                facts.recordings.back().tracks.push_back({track.id,
                                                          track.sparse,
                                                          {track.formatName, track.formatVersion},
                                                          survivors[track.id].Size()});
            }
        }
    }
}

} // namespace

StoreInspection::StoreInspection(const std::string& folder)
    : storage_(folder + "/data"), database_(folder + "/database") {
    if (!PosixFileSystem().Exists(storage_)) {
        throw std::runtime_error("There is no store at " + folder + ": " + storage_ + " is missing");
    }
}

StoreFacts StoreInspection::Describe() const {
    IFileSystem& files = PosixFileSystem();
    const StoreFolders folders{storage_, database_};
    const auto lock = LockStore(files, folders, OpenMode::Read);
    RequireCatalogue(files, folders);
    const SqliteVfs vfs(files);
    Catalogue catalogue(folders.Catalogue(), vfs.Name(), Catalogue::Mode::ReadOnly);
    const CatalogueContent content = catalogue.Load();
    StoreFacts facts;
    facts.id = ToText(catalogue.GetId());
    AddTracks(content, facts);
    for (const SegmentRow& segment : content.segments) {
        ++facts.segments;
        facts.bytes += segment.length;
    }
    std::map<std::uint32_t, std::uint32_t> next;
    for (const SegmentKey& key : content.nextSegments) {
        next[key.lane] = key.sequence;
    }
    for (const SegmentKey& key : ListSegments(files, storage_)) {
        facts.unsealed += key.sequence >= next[key.lane] ? 1U : 0U;
    }
    return facts;
}

std::vector<std::string> StoreInspection::Verify() const {
    return VerifyStore(PosixFileSystem(), storage_, database_);
}

std::vector<std::string> StoreInspection::Rebuild() const {
    IFileSystem& files = PosixFileSystem();
    const StoreFolders folders{storage_, database_};
    files.MakeFolder(database_); // It may be lost with the catalogue.
    const auto lock = LockStore(files, folders, OpenMode::Create);
    const SqliteVfs vfs(files);
    const std::string catalogue = folders.Catalogue();
    if (files.Exists(catalogue) && IsWhole(folders, vfs.Name())) {
        throw std::runtime_error("The catalogue " + catalogue + " is whole; there is nothing to rebuild");
    }
    const std::string made = catalogue + ".new";
    for (const char* suffix : {"", "-wal", "-journal"}) {
        files.Remove(made + suffix);
    }
    Rebuilder rebuilder(files, folders);
    std::vector<std::string> lost = rebuilder.Write(made, vfs.Name());
    for (const char* suffix : {"-wal", "-journal", ""}) {
        if (files.Exists(catalogue + suffix)) {
            files.Rename(catalogue + suffix, catalogue + ".damaged" + suffix);
        }
    }
    files.Rename(made, catalogue);
    files.SyncFolder(database_);
    WriteIdentity(files, folders, rebuilder.Id());
    return lost;
}

unsigned int StoreInspection::Trim(unsigned int track, unsigned int count) const {
    IFileSystem& files = PosixFileSystem();
    RequireCatalogue(files, {storage_, database_});
    StoreOptions options;
    options.storage = storage_;
    options.database = database_;
    options.maxPercent = 100; // Nothing gives way to the repair.
    options.background = false;
    Store store(files, options);
    const auto found = FindTrack(store, track);
    if (found == nullptr) {
        throw std::runtime_error("There is no track " + std::to_string(track) + " in " + storage_);
    }
    const unsigned int size = found->size();
    if (size < count) {
        throw std::runtime_error("Track " + std::to_string(track) + " has " + std::to_string(size) +
                                 " records; the newest " + std::to_string(count) + " cannot be erased");
    }
    found->eraseRange(size - count, size);
    return size - count;
}

} // namespace drenn::multi_track_recorder
