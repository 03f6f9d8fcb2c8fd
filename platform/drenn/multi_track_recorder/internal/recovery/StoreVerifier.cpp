#include <algorithm>
#include <limits>
#include <map>
#include <set>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/Survivors.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/Opening.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentWalker.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"

namespace drenn::multi_track_recorder {
namespace {

std::string Text(const SerialRange& range) {
    return std::to_string(range.first) + " to " + std::to_string(range.end);
}

class Verifier {
public:
    Verifier(IFileSystem& files, const StoreFolders& folders, Catalogue& catalogue)
        : files_(files),
          folders_(folders),
          id_(catalogue.GetId()),
          content_(catalogue.Load()),
          wrong_(catalogue.Check()) {}

    std::vector<std::string> Run() {
        CheckIdentity();
        IndexTables();
        CheckSegments();
        CheckErased();
        CheckInfos();
        return wrong_;
    }

private:
    void Wrong(int invariant, const std::string& text) {
        wrong_.push_back("Invariant " + std::to_string(invariant) + ": " + text);
    }
    std::string PathOf(SegmentKey key) const { return folders_.storage + "/" + FileNameOf(key); }

    void CheckIdentity() {
        if (!files_.Exists(folders_.Identity())) {
            if (!content_.segments.empty()) {
                Wrong(1, "there is no " + folders_.Identity());
            }
            return;
        }
        try {
            if (ReadIdentity(files_, folders_.Identity()) != id_) {
                Wrong(1, folders_.Identity() + " is another store's");
            }
        } catch (const std::exception& error) {
            Wrong(1, error.what());
        }
    }

    void IndexTables() {
        std::set<std::uint32_t> recordings;
        for (const RecordingRow& row : content_.recordings) {
            recordings.insert(row.id);
        }
        for (const TrackRow& row : content_.tracks) {
            tracks_[row.id] = &row;
            if (recordings.count(row.recording) == 0) {
                Wrong(9, "track " + std::to_string(row.id) + " is of recording " +
                             std::to_string(row.recording) + ", which does not exist");
            }
        }
        for (const SegmentKey& next : content_.nextSegments) {
            nextSequences_[next.lane] = next.sequence;
        }
        for (const SegmentRow& row : content_.segments) {
            segments_[row.key] = &row;
            newest_[row.key.lane] = row.key.sequence;
        }
        for (const ExtentRow& row : content_.extents) {
            extents_[row.segment].push_back(row);
        }
        for (const ErasedRow& row : content_.erased) {
            erased_[row.track].push_back(row.range);
        }
    }

    void CheckSegments() {
        std::set<SegmentKey> present;
        for (const SegmentKey& key : ListSegments(files_, folders_.storage)) {
            present.insert(key);
            const auto row = segments_.find(key);
            const auto next = nextSequences_.find(key.lane);
            if (row == segments_.end() && next != nextSequences_.end() && key.sequence < next->second) {
                Wrong(2, PathOf(key) + " is not in the catalogue");
            } else if (row == segments_.end()) {
                newest_[key.lane] = key.sequence;
                Walk(key, std::numeric_limits<std::uint32_t>::max(), false);
            } else if (!row->second->removing) {
                Walk(key, row->second->length, true);
            }
        }
        for (const auto& [key, row] : segments_) {
            if (!row->removing && present.count(key) == 0) {
                Wrong(2, PathOf(key) + " is missing");
            }
            CheckSurvivors(*row);
        }
        for (const auto& [key, rows] : extents_) {
            if (segments_.count(key) == 0) {
                Wrong(6, "the catalogue has extents in " + PathOf(key) + ", which it does not know");
            }
        }
    }

    /// `isSealed`: all of it must check; else what does not is the torn end that the next opening cuts.
    void Walk(SegmentKey key, std::uint64_t length, bool isSealed) {
        const std::string path = PathOf(key);
        const auto file = files_.Open(path, OpenMode::Read);
        SegmentWalker walker(*file, length);
        const auto& header = walker.Header();
        if (!header) {
            if (isSealed) {
                Wrong(4, path + ": the header is damaged");
            }
            return;
        }
        if (header->store != id_ || header->lane != key.lane || header->sequence != key.sequence) {
            Wrong(1, path + " is a segment of another store or another place");
            return;
        }
        std::vector<ExtentRow> found;
        while (const auto block = walker.Next(true)) {
            CheckBlock(key, *block, walker, found);
        }
        if (isSealed && walker.Offset() != length) {
            Wrong(walker.Offset() < length ? 4 : 3, path + ": what is at byte " +
                                                        std::to_string(walker.Offset()) + " of " +
                                                        std::to_string(length) + " does not check");
        }
        if (isSealed) {
            CompareExtents(key, found);
        }
    }

    void CheckBlock(SegmentKey key, const BlockHeader& block, const SegmentWalker& walker,
                    std::vector<ExtentRow>& found) {
        const std::string where = PathOf(key) + " at byte " + std::to_string(block.offset) + ": ";
        const auto track = tracks_.find(block.track);
        if (block.kind != BlockKind::State && track != tracks_.end() &&
            LaneOf(track->second->recording, track->second->sparse) != key.lane) {
            Wrong(9, where + "track " + std::to_string(block.track) + " is not of this lane");
        }
        if (block.kind == BlockKind::Records) {
            std::uint64_t& next = nextSerials_[block.track];
            if (block.firstSerial < next) {
                Wrong(5, where + "the serials of track " + std::to_string(block.track) + " begin with " +
                             std::to_string(block.firstSerial) + " after " + std::to_string(next));
            }
            next = block.firstSerial + block.count;
            found.push_back({block.track, key, block.firstSerial, block.count});
        } else {
            TakeMarkers(block, walker.Body(block), where);
        }
    }

    void TakeMarkers(const BlockHeader& block, const Bytes& body, const std::string& where) {
        if (block.kind == BlockKind::Erased) {
            marked_[block.track].Add({block.firstSerial, ByteReader(body.data(), body.size()).U64()});
        }
        if (block.kind != BlockKind::State) {
            return;
        }
        const auto state = DecodeLaneState(body);
        if (!state) {
            Wrong(3, where + "the state cannot be read");
            return;
        }
        for (const TrackState& track : state->tracks) {
            marked_[track.id].Add({0, track.firstSerial});
            for (const SerialRange& range : track.erased) {
                marked_[track.id].Add(range);
            }
        }
    }

    void CompareExtents(SegmentKey key, const std::vector<ExtentRow>& blocks) {
        std::map<std::uint32_t, Survivors> fromBlocks;
        std::map<std::uint32_t, Survivors> fromCatalogue;
        for (const ExtentRow& block : blocks) {
            fromBlocks[block.track].Append({block.firstSerial, block.firstSerial + block.count});
        }
        for (const ExtentRow& row : extents_[key]) {
            fromCatalogue[row.track].Append({row.firstSerial, row.firstSerial + row.count});
        }
        if (fromBlocks != fromCatalogue) {
            Wrong(6, PathOf(key) + " has other records than the catalogue says");
        }
    }

    void CheckSurvivors(const SegmentRow& row) {
        std::uint64_t survivors = 0;
        for (const ExtentRow& extent : extents_[row.key]) {
            if (tracks_.count(extent.track) != 0) {
                Survivors left = SurvivorsOf(extent);
                survivors += left.Size();
            }
        }
        if (survivors == 0 && !row.removing && newest_[row.key.lane] != row.key.sequence) {
            Wrong(8, PathOf(row.key) + " has no surviving record and is not listed as to be removed");
        }
    }

    Survivors SurvivorsOf(const ExtentRow& extent) {
        Survivors left;
        left.Append({extent.firstSerial, extent.firstSerial + extent.count});
        left.Erase({0, tracks_.at(extent.track)->firstSerial});
        for (const SerialRange& range : erased_[extent.track]) {
            left.Erase(range);
        }
        return left;
    }

    void CheckErased() {
        for (const auto& [id, track] : tracks_) {
            std::uint64_t before = track->firstSerial;
            for (const SerialRange& range : erased_[id]) {
                if (range.first <= before || range.end <= range.first) {
                    Wrong(7, "the erased range " + Text(range) + " of track " + std::to_string(id) +
                                 " overlaps or touches what is before it");
                }
                before = range.end;
            }
        }
        for (const ExtentRow& extent : content_.extents) {
            const auto segment = segments_.find(extent.segment);
            if (tracks_.count(extent.track) != 0 && segment != segments_.end() &&
                !segment->second->removing) {
                CheckMarked(extent);
            }
        }
    }

    /// What is erased of an extent that is still there must be marked as erased in the lane, too.
    void CheckMarked(const ExtentRow& extent) {
        const ErasedRanges& marked = marked_[extent.track];
        Survivors unmarked;
        unmarked.Append({extent.firstSerial, extent.firstSerial + extent.count});
        unmarked.Erase({0, marked.FirstSerial()});
        for (const SerialRange& range : marked.Ranges()) {
            unmarked.Erase(range);
        }
        const Survivors left = SurvivorsOf(extent);
        if (unmarked.Size() > left.Size()) {
            Wrong(10, PathOf(extent.segment) + ": " + std::to_string(unmarked.Size() - left.Size()) +
                          " erased records of track " + std::to_string(extent.track) +
                          " are not marked in the lane");
        }
    }

    void CheckInfos() {
        for (const InfoRow& row : content_.infos) {
            const auto track = tracks_.find(row.track);
            if (track == tracks_.end()) {
                Wrong(11, "an info text is of track " + std::to_string(row.track) + ", which does not exist");
            } else if (row.from >
                       std::max({nextSerials_[row.track], track->second->nextSerial,
                                 track->second->firstSerial,
                                 erased_[row.track].empty() ? 0 : erased_[row.track].back().end})) {
                Wrong(11, "an info text of track " + std::to_string(row.track) + " is for the records from " +
                              std::to_string(row.from) + ", which is behind the end");
            }
        }
    }

    IFileSystem& files_;
    const StoreFolders folders_;
    const StoreId id_;
    const CatalogueContent content_;
    std::vector<std::string> wrong_;
    std::map<std::uint32_t, const TrackRow*> tracks_;
    std::map<SegmentKey, const SegmentRow*> segments_;
    std::map<std::uint32_t, std::uint32_t> nextSequences_;
    std::map<std::uint32_t, std::uint32_t> newest_; ///< Sequence of the newest segment of each lane.
    std::map<SegmentKey, std::vector<ExtentRow>> extents_;
    std::map<std::uint32_t, std::vector<SerialRange>> erased_;
    std::map<std::uint32_t, ErasedRanges> marked_;
    std::map<std::uint32_t, std::uint64_t> nextSerials_; ///< Behind the blocks seen so far.
};

} // namespace

std::vector<std::string> VerifyStore(IFileSystem& files, const std::string& storage,
                                     const std::string& database) {
    const StoreFolders folders{storage, database};
    if (!files.Exists(folders.Catalogue())) {
        throw std::runtime_error("There is no store: " + folders.Catalogue() + " is missing");
    }
    std::unique_ptr<IFile> lock;
    if (files.Exists(folders.Lock())) {
        lock = files.Open(folders.Lock(), OpenMode::Read);
        if (!lock->TryLock()) {
            throw std::runtime_error("The store at " + storage + " is open in another process");
        }
    }
    const SqliteVfs vfs(files);
    Catalogue catalogue(folders.Catalogue(), vfs.Name(), Catalogue::Mode::ReadOnly);
    if (catalogue.GetId() == StoreId{}) {
        return {}; // Making it was cut short; nothing was promised yet.
    }
    return Verifier(files, folders, catalogue).Run();
}

} // namespace drenn::multi_track_recorder
