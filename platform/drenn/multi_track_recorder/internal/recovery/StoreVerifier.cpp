#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/io/DirectoryFile.h"
#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/Erasures.h"
#include "drenn/multi_track_recorder/internal/recovery/Opening.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentScan.h"

namespace drenn::multi_track_recorder {
namespace {

std::string TrackName(std::uint32_t track) {
    return "track " + std::to_string(track);
}

struct InfoOfBlock {
    std::string text;
    bool isSealed;
    bool isNearDamage;
};

class Verifier {
public:
    Verifier(IFileSystem& files, const StoreFolders& folders, Catalogue& catalogue)
        : files_(files),
          folders_(folders),
          catalogue_(catalogue),
          id_(catalogue.GetId()),
          content_(catalogue.Load()) {
        report_.wrong = catalogue.Check();
    }

    VerifyReport Run() {
        CheckIdentity();
        IndexTables();
        CheckSegments();
        CheckErased();
        CheckStates();
        CheckInfos();
        for (const std::string& path : ListAside(files_, folders_)) {
            report_.notes.push_back(path + " was set aside; it was not checked");
        }
        report_.checked = "the catalogue, " + std::to_string(sealed_) + " sealed and " +
                          std::to_string(unsealed_) + " other segments with " + std::to_string(footers_) +
                          " footers, " + std::to_string(blocks_) + " blocks, " + std::to_string(records_) +
                          " records, " + std::to_string(bytes_) + " bytes";
        return std::move(report_);
    }

private:
    void Wrong(int invariant, const std::string& text) {
        report_.wrong.push_back("Invariant " + std::to_string(invariant) + ": " + text);
    }
    std::string PathOf(SegmentKey key) const { return folders_.PathOf(key); }

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
            erased_[row.id] = ErasedOf(row, {&content_.erased});
            if (recordings.count(row.recording) == 0) {
                Wrong(9, TrackName(row.id) + " is of recording " + std::to_string(row.recording) +
                             ", which does not exist");
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
        for (const DamageRow& row : content_.damage) {
            damage_[row.segment].push_back(row);
        }
        DirectoryFile(files_, folders_.Directories())
            .ForEach([this](SegmentKey key, const StoredDirectory& stored) {
                directories_.emplace(key, stored); // The newest comes first.
            });
    }

    void CheckSegments() {
        std::set<SegmentKey> present;
        for (const SegmentKey& key : ListSegments(files_, folders_.storage)) {
            present.insert(key);
            const auto row = segments_.find(key);
            if (row == segments_.end() || !row->second->removing) {
                CheckFile(key, row == segments_.end() ? nullptr : row->second);
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

    /// `row`: nothing for one that the catalogue does not know.
    void CheckFile(SegmentKey key, const SegmentRow* row) {
        const std::string path = PathOf(key);
        SegmentScan scan;
        try {
            scan = ScanSegment(*files_.Open(path, OpenMode::Read), path, id_, key);
        } catch (const FileError& error) {
            (row != nullptr ? report_.wrong : report_.notes).emplace_back(error.what());
            return;
        }
        if (scan.owner == SegmentScan::Owner::Other || scan.owner == SegmentScan::Owner::Later) {
            Wrong(1, path + " is a segment of another store, another place or a later version");
            return;
        }
        const auto next = nextSequences_.find(key.lane);
        if (row != nullptr) {
            ++sealed_;
            CheckSealed(*row, scan);
        } else if (next != nextSequences_.end() && key.sequence < next->second) {
            Wrong(2, path + " is not in the catalogue");
        } else {
            ++unsealed_;
            CheckUnsealed(key, scan);
        }
    }

    /// The next opening seals it with all that can be read.
    void CheckUnsealed(SegmentKey key, const SegmentScan& scan) {
        const bool isDamaged = std::any_of(scan.damage.begin(), scan.damage.end(), [](const DamageRow& row) {
            return row.kind == DamageRow::Kind::Damaged;
        });
        for (const std::string& fault : scan.faults) {
            if (isDamaged) {
                Wrong(4, fault);
            } else {
                report_.notes.push_back(fault);
            }
        }
        TakeBlocks(key, scan);
    }

    void CheckSealed(const SegmentRow& row, SegmentScan& scan) {
        const std::string path = PathOf(row.key);
        for (const DamageRow& each : scan.damage) {
            if (each.first < row.length || !IsKnown(each)) {
                const std::string line = ToText(each, path);
                if (IsKnown(each)) {
                    report_.notes.push_back(line + ", which is known");
                } else if (each.first < row.length) {
                    Wrong(4, line);
                } else {
                    // It is not synced, so a power cut may leave it torn; the blocks are walked then.
                    report_.notes.push_back(path + ": the footer is damaged; it is not needed");
                }
            }
        }
        // What is behind the valid part was never durable.
        scan.blocks.erase(
            std::remove_if(scan.blocks.begin(), scan.blocks.end(),
                           [&](const ScannedBlock& block) { return block.header.End() > row.length; }),
            scan.blocks.end());
        const std::uint64_t end = scan.blocks.empty() ? 0 : scan.blocks.back().header.End();
        if (end != row.length) {
            Wrong(end < row.length ? 4 : 3, path + ": what is at byte " + std::to_string(end) + " of " +
                                                std::to_string(row.length) + " does not check");
        }
        CheckLists(row, scan);
        CompareExtents(row.key, TakeBlocks(row.key, scan));
    }

    bool IsKnown(const DamageRow& row) {
        const std::vector<DamageRow>& known = damage_[row.segment];
        return std::any_of(known.begin(), known.end(), [&](const DamageRow& each) {
            return each.first <= row.first && row.end <= each.end;
        });
    }

    void CheckLists(const SegmentRow& row, const SegmentScan& scan) {
        if (scan.length != row.length) {
            return;
        }
        const auto blocks = ListRecordBlocks(*files_.Open(PathOf(row.key), OpenMode::Read), scan);
        if (scan.hasFooter) {
            ++footers_;
            Bytes footer(static_cast<std::size_t>(scan.size - row.length)); // Bounded by the scan.
            files_.Open(PathOf(row.key), OpenMode::Read)->Read(row.length, footer.data(), footer.size());
            if (EncodeFooter(blocks, scan.salt) != footer) {
                Wrong(6, PathOf(row.key) + ": the footer has other blocks than the segment");
            }
        }
        const auto listed = directories_.find(row.key);
        if (listed != directories_.end() && listed->second.salt == scan.salt &&
            EncodeDirectory(listed->second.blocks, scan.salt) != EncodeDirectory(blocks, scan.salt)) {
            Wrong(6, PathOf(row.key) + ": its directory has other blocks than the segment");
        }
    }

    std::vector<ExtentRow> TakeBlocks(SegmentKey key, const SegmentScan& scan) {
        for (const ScannedBlock& block : scan.blocks) {
            CheckBlock(key, block);
        }
        std::vector<ExtentRow> extents = TakeRecords(scan, key, nextSerials_);
        CheckInfosInForce(key, scan);
        return extents;
    }

    void CheckBlock(SegmentKey key, const ScannedBlock& scanned) {
        const BlockHeader& block = scanned.header;
        const std::string where = PathOf(key) + " at byte " + std::to_string(block.offset) + ": ";
        const auto track = tracks_.find(block.track);
        ++blocks_;
        bytes_ += block.End() - block.offset;
        records_ += block.count;
        if (block.kind != BlockKind::State && track != tracks_.end() &&
            LaneOf(track->second->recording, track->second->sparse) != key.lane) {
            Wrong(9, where + TrackName(block.track) + " is not of this lane");
        }
        if (block.kind == BlockKind::Records && block.firstSerial < seenSerials_[block.track]) {
            Wrong(5, where + "the serials of " + TrackName(block.track) + " begin with " +
                         std::to_string(block.firstSerial) + " after " +
                         std::to_string(seenSerials_[block.track]));
        }
        if (block.kind == BlockKind::Records) {
            seenSerials_[block.track] = block.firstSerial + block.count;
        } else if (scanned.isWhole) {
            TakeControl(key, scanned, where);
        }
    }

    void TakeControl(SegmentKey key, const ScannedBlock& block, const std::string& where) {
        const std::uint32_t track = block.header.track;
        if (block.header.kind == BlockKind::Erased) {
            if (const auto erased = DecodeErased(block.header, block.body)) {
                marked_[track].Add(*erased);
            } else {
                Wrong(3, where + "the erased range is none");
            }
        } else if (block.header.kind == BlockKind::Info) {
            infos_[{track, block.header.firstSerial}] = {std::string(block.body.begin(), block.body.end()),
                                                         segments_.count(key) != 0, !damage_[key].empty()};
        } else if (auto state = DecodeLaneState(block.body)) {
            TakeState(key, *state, where);
            states_[key.lane] = std::move(*state);
        } else {
            Wrong(3, where + "the state cannot be read");
        }
    }

    void TakeState(SegmentKey key, const LaneState& state, const std::string& where) {
        if (LaneOf(state.recording, state.sparse) != key.lane) {
            Wrong(9, where + "the state is of another lane");
        }
        for (const TrackState& track : state.tracks) {
            std::uint64_t& seen = seenSerials_[track.id];
            if (track.nextSerial < seen) {
                Wrong(5, where + "the state says that " + TrackName(track.id) + " goes on with " +
                             std::to_string(track.nextSerial) + " after " + std::to_string(seen));
            }
            seen = std::max(seen, track.nextSerial);
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
            const auto track = tracks_.find(row.track);
            if (track != tracks_.end() && track->second->nextSerial < row.firstSerial + row.count) {
                Wrong(5, TrackName(row.track) + " goes on with " + std::to_string(track->second->nextSerial) +
                             ", which " + PathOf(key) + " has already");
            }
        }
        if (fromBlocks != fromCatalogue) {
            Wrong(6, PathOf(key) + " has other records than the catalogue says");
        }
    }

    void CheckSurvivors(const SegmentRow& row) {
        std::uint64_t survivors = 0;
        for (const ExtentRow& extent : extents_[row.key]) {
            survivors += SurvivorsOf(extent, content_);
        }
        const bool isNewest = newest_[row.key.lane] == row.key.sequence;
        if (survivors == 0 && !row.removing && !isNewest && damage_[row.key].empty()) {
            Wrong(8, PathOf(row.key) + " has no surviving record and is not listed as to be removed");
        }
        if (survivors > 0 && row.removing) {
            Wrong(8, PathOf(row.key) + " is listed as to be removed, but has " + std::to_string(survivors) +
                         " surviving records");
        }
    }

    void CheckErased() {
        for (const auto& [id, track] : tracks_) {
            std::uint64_t before = track->firstSerial;
            for (const ErasedRow& row : content_.erased) {
                if (row.track != id) {
                    continue;
                }
                if (row.range.first <= before) {
                    Wrong(7, "the erased range " + std::to_string(row.range.first) + " to " +
                                 std::to_string(row.range.end) + " of " + TrackName(id) +
                                 " overlaps or touches what is before it");
                }
                before = row.range.end;
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
        const SerialRange range{extent.firstSerial, extent.firstSerial + extent.count};
        const std::uint64_t unmarked = Without(range, marked_[extent.track]).Size();
        const std::uint64_t left = Without(range, erased_[extent.track]).Size();
        if (unmarked > left) {
            Wrong(10, PathOf(extent.segment) + ": " + std::to_string(unmarked - left) +
                          " erased records of " + TrackName(extent.track) + " are not marked in the lane");
        }
    }

    /// A state was made from the catalogue, so what it says is erased is.
    void CheckStates() {
        for (const auto& [lane, state] : states_) {
            for (const TrackState& track : state.tracks) {
                if (tracks_.count(track.id) == 0) {
                    continue; // Erased behind the state.
                }
                bool isErased =
                    track.firstSerial == 0 || Without({0, track.firstSerial}, erased_[track.id]).Size() == 0;
                for (const SerialRange& range : track.erased) {
                    isErased = isErased && Without(range, erased_[track.id]).Size() == 0;
                }
                if (!isErased) {
                    Wrong(7, "the newest state of lane " + std::to_string(lane) + " has erased records of " +
                                 TrackName(track.id) + " that the catalogue has not");
                }
            }
        }
    }

    void CheckInfos() {
        std::map<InfoKey, bool> known;
        for (const InfoRow& row : content_.infos) {
            known[{row.track, row.from}] = true;
            const auto track = tracks_.find(row.track);
            if (track == tracks_.end()) {
                Wrong(11, "an info text is of " + TrackName(row.track) + ", which does not exist");
            } else if (row.from > std::max({nextSerials_[row.track], track->second->nextSerial,
                                            track->second->firstSerial, LastErased(row.track)})) {
                Wrong(11, "an info text of " + TrackName(row.track) + " is for the records from " +
                              std::to_string(row.from) + ", which is behind the end");
            }
        }
        for (const auto& [key, info] : infos_) {
            if (known.count(key) == 0 || !info.isSealed) {
                continue;
            }
            const std::string text = catalogue_.GetInfo(key.first, key.second);
            // Where one that came after it was lost, none holds.
            if (text != info.text && !(text.empty() && info.isNearDamage)) {
                Wrong(11, "the info text of " + TrackName(key.first) + " from record " +
                              std::to_string(key.second) +
                              " on is another one in the catalogue than in its segment");
            }
        }
    }

    /// Records must have the text that they were written under, or none.
    void CheckInfosInForce(SegmentKey key, const SegmentScan& scan) {
        if (texts_.empty()) {
            for (const InfoRow& row : content_.infos) {
                texts_[row.track][row.from] = catalogue_.GetInfo(row.track, row.from);
            }
        }
        for (const auto& [info, text] : infos_) {
            if (!text.isSealed) { // The catalogue gets it with the next opening.
                texts_[info.first][info.second] = text.text;
            }
        }
        for (const MissingInfo& missing : MissInfos(scan, texts_)) {
            const auto track = tracks_.find(missing.track);
            const auto texts = texts_[missing.track];
            const auto behind = texts.upper_bound(missing.from);
            const std::string line = PathOf(key) + ": the info text of " + TrackName(missing.track) +
                                     " from record " + std::to_string(missing.from) + " on is missing";
            if (track == tracks_.end() || missing.end <= track->second->firstSerial) {
                continue; // Nobody asks for it any more.
            }
            if (behind != texts.begin() && std::prev(behind)->second.empty()) {
                report_.notes.push_back(line);
                InfoOfBlock& info = infos_[{missing.track, std::prev(behind)->first}];
                info.isNearDamage |= InfoTag(std::prev(behind)->first, info.text) != missing.tag;
            } else {
                Wrong(11, line);
            }
        }
    }

    std::uint64_t LastErased(std::uint32_t track) {
        const std::vector<SerialRange>& ranges = erased_[track].Ranges();
        return ranges.empty() ? 0 : ranges.back().end;
    }

    IFileSystem& files_;
    const StoreFolders folders_;
    Catalogue& catalogue_;
    const StoreId id_;
    const CatalogueContent content_;
    VerifyReport report_;
    std::map<std::uint32_t, const TrackRow*> tracks_;
    std::map<SegmentKey, const SegmentRow*> segments_;
    std::map<std::uint32_t, std::uint32_t> nextSequences_;
    std::map<std::uint32_t, std::uint32_t> newest_; ///< Sequence of the newest sealed segment of each lane.
    std::map<SegmentKey, std::vector<ExtentRow>> extents_;
    std::map<SegmentKey, std::vector<DamageRow>> damage_;
    std::map<SegmentKey, StoredDirectory> directories_;
    std::map<std::uint32_t, ErasedRanges> erased_; ///< As the catalogue has it.
    std::map<std::uint32_t, ErasedRanges> marked_; ///< As the segments have it.
    std::map<std::uint32_t, LaneState> states_;    ///< The newest of each lane.
    std::map<InfoKey, InfoOfBlock> infos_;
    InfoTexts texts_;         ///< Of the catalogue, and of what is not sealed.
    NextSerials nextSerials_; ///< Behind the blocks seen so far.
    NextSerials seenSerials_; ///< Likewise, with what states say.
    std::uint64_t sealed_ = 0;
    std::uint64_t unsealed_ = 0;
    std::uint64_t footers_ = 0;
    std::uint64_t blocks_ = 0;
    std::uint64_t records_ = 0;
    std::uint64_t bytes_ = 0;
};

} // namespace

VerifyReport ExamineStore(IFileSystem& files, const std::string& storage, const std::string& database) {
    const StoreFolders folders{storage, database};
    if (!files.Exists(folders.Catalogue())) {
        throw std::runtime_error("There is no store: " + folders.Catalogue() + " is missing");
    }
    const StoreLock lock = LockStore(files, folders);
    const SqliteVfs vfs(files, SqliteVfs::Access::ReadOnly);
    Catalogue catalogue(folders.Catalogue(), vfs.Name(), Catalogue::Mode::ReadOnly);
    catalogue.RequireVersion();
    if (catalogue.GetId() == StoreId{}) {
        return {}; // Making it was cut short; nothing was promised yet.
    }
    return Verifier(files, folders, catalogue).Run();
}

std::vector<std::string> VerifyStore(IFileSystem& files, const std::string& storage,
                                     const std::string& database) {
    return ExamineStore(files, storage, database).wrong;
}

} // namespace drenn::multi_track_recorder
