#include "drenn/multi_track_recorder/StoreInspection.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/Store.h"
#include "drenn/multi_track_recorder/internal/Survivors.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/Opening.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentScan.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreRebuilding.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"

namespace drenn::multi_track_recorder {
namespace {

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
    RequireCatalogue(files, folders);
    const SqliteVfs vfs(files, SqliteVfs::Access::ReadOnly);
    const OpenedStore opened = OpenStoreToRead(files, folders, vfs.Name());
    const CatalogueContent& content = opened.content;
    StoreFacts facts;
    facts.id = ToText(opened.id);
    AddTracks(content, facts);
    facts.damage = opened.told;
    for (const DamageRow& row : opened.catalogue->Load().damage) {
        facts.damage.push_back(ToText(row, folders.PathOf(row.segment)));
    }
    for (const std::string& path : ListAside(files, folders)) {
        facts.aside.push_back({path, files.Open(path, OpenMode::Read)->Size()});
    }
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

VerifyReport StoreInspection::Verify() const {
    return ExamineStore(PosixFileSystem(), storage_, database_);
}

std::vector<std::string> StoreInspection::Rebuild() const {
    return RebuildStore(PosixFileSystem(), storage_, database_);
}

std::vector<std::string> StoreInspection::ShowAside(const std::string& path) const {
    IFileSystem& files = PosixFileSystem();
    const StoreFolders folders{storage_, database_};
    const std::vector<std::string> paths = ListAside(files, folders);
    if (std::find(paths.begin(), paths.end(), path) == paths.end()) {
        throw std::runtime_error(path + " was not set aside in " + storage_);
    }
    const auto file = files.Open(path, OpenMode::Read);
    std::vector<std::string> lines{path + ": " + std::to_string(file->Size()) + " bytes"};
    const auto segment = SegmentOf(path.substr(path.rfind('/') + 1, FileNameOf({}).size()));
    if (segment) {
        const SegmentScan scan = ScanSegment(*file, path, ReadIdentity(files, folders.Identity()), *segment);
        lines.push_back("it may be a segment; " + std::to_string(scan.blocks.size()) +
                        " headers of blocks can be read");
        lines.insert(lines.end(), scan.faults.begin(), scan.faults.end());
    } else {
        lines.emplace_back("it is part of a catalogue that was made anew");
    }
    return lines;
}

std::vector<std::string> StoreInspection::EmptyAside() const {
    IFileSystem& files = PosixFileSystem();
    const StoreFolders folders{storage_, database_};
    const StoreLock lock = LockStore(files, folders);
    std::vector<std::string> paths = ListAside(files, folders);
    for (const std::string& path : paths) {
        files.Remove(path);
    }
    return paths;
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
