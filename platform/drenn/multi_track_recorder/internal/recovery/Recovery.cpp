#include "drenn/multi_track_recorder/internal/recovery/Recovery.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/recovery/Erasures.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentWalker.h"
#include "quarn/core/Logger.h"

namespace drenn::multi_track_recorder {
namespace {

template <typename Rows>
bool HasId(const Rows& rows, std::uint32_t id) {
    return std::any_of(rows.begin(), rows.end(), [id](const auto& row) { return row.id == id; });
}

template <typename Rows, typename Less>
void Join(Rows& rows, const Rows& more, const Less& less) {
    rows.insert(rows.end(), more.begin(), more.end());
    std::stable_sort(rows.begin(), rows.end(), less);
}

} // namespace

Recovery::Recovery(IFileSystem& files, const StoreFolders& folders, const StoreId& id, Catalogue& catalogue)
    : files_(files), folders_(folders), id_(id), catalogue_(catalogue), content_(catalogue.Load()) {
    for (const TrackRow& track : content_.tracks) {
        nextSerials_[track.id] = track.nextSerial;
    }
    for (const SegmentKey& next : content_.nextSegments) {
        nextSequences_[next.lane] = next.sequence;
    }
}

void Recovery::RequireKnownVersions() const {
    for (const SegmentKey& segment : ListSegments(files_, folders_.storage)) {
        const auto next = nextSequences_.find(segment.lane);
        if (next != nextSequences_.end() && segment.sequence < next->second) {
            continue;
        }
        const std::string path = folders_.PathOf(segment);
        std::optional<std::uint32_t> version;
        try {
            version = SegmentWalker(*files_.Open(path, OpenMode::Read), kSegmentHeaderBytes).LaterVersion();
        } catch (const FileError&) {
            // SealSegment tells of it.
        }
        if (version) {
            throw LaterVersionError(path, std::to_string(*version));
        }
    }
}

void Recovery::Run() {
    RemoveDead();
    ForEachUnsealed(false);
}

void Recovery::RunInMemory() {
    ForEachUnsealed(true);
}

void Recovery::ForEachUnsealed(bool isInMemory) {
    for (const SegmentKey& segment : ListSegments(files_, folders_.storage)) {
        std::uint32_t& next = nextSequences_.try_emplace(segment.lane, 1).first->second;
        if (segment.sequence >= next) {
            SealSegment(segment, isInMemory);
            next = segment.sequence + 1;
        }
    }
}

/// Those that the catalogue lists as to be removed, and of which its other tables say, too, that no record survives.
void Recovery::RemoveDead() {
    std::vector<SegmentKey> dead;
    for (const SegmentRow& segment : content_.segments) {
        if (!segment.removing) {
            continue;
        }
        if (!IsDead(segment)) {
            Tell(folders_.PathOf(segment.key) +
                 " is listed as to be removed, but has records that survive; it is kept");
            continue;
        }
        files_.Remove(folders_.PathOf(segment.key));
        dead.push_back(segment.key);
    }
    if (dead.empty()) {
        return;
    }
    files_.SyncFolder(folders_.storage);
    {
        Catalogue::Transaction transaction(catalogue_);
        for (const SegmentKey& segment : dead) {
            transaction.Forget(segment);
        }
        transaction.Commit();
    }
    content_ = catalogue_.Load();
}

bool Recovery::IsDead(const SegmentRow& segment) const {
    return std::none_of(content_.extents.begin(), content_.extents.end(), [&](const ExtentRow& extent) {
        return extent.segment == segment.key && SurvivorsOf(extent, content_) > 0;
    });
}

void Recovery::SealSegment(SegmentKey segment, bool isInMemory) {
    const std::string path = folders_.PathOf(segment);
    std::unique_ptr<IFile> file;
    try {
        file = files_.Open(path, isInMemory ? OpenMode::Read : OpenMode::ReadWrite);
    } catch (const FileError& error) {
        Tell(std::string(error.what()) + "; it is left alone");
        return;
    }
    const SegmentScan scan = ScanSegment(*file, path, id_, segment);
    if (scan.owner == SegmentScan::Owner::Other || scan.owner == SegmentScan::Owner::Later) {
        Tell(path + " belongs to another store or to a later version; it is left alone");
        return;
    }
    for (const std::string& fault : scan.faults) {
        Tell(fault);
    }
    if (scan.length == 0) {
        if (!isInMemory) {
            file = nullptr;
            PutAway(segment, scan);
        }
        return;
    }
    const Found found = Take(scan, segment);
    if (!isInMemory) {
        // What a killed process wrote may not be durable yet; what the catalogue knows must be.
        file->Sync();
        files_.SyncFolder(folders_.storage);
        Write(found);
    }
    AddToContent(found);
}

/// A file without a block that anything can be taken over from.
void Recovery::PutAway(SegmentKey segment, const SegmentScan& scan) {
    const std::string path = folders_.PathOf(segment);
    if (scan.HoldsNothing()) {
        files_.Remove(path);
    } else {
        const std::string aside = FreeAsidePath(files_, path);
        Tell(path + " has nothing that can be read; it is kept as " + aside);
        files_.Rename(path, aside);
    }
    files_.SyncFolder(folders_.storage);
}

void Recovery::Tell(const std::string& line) {
    quarn::core::Logger::GetLogger("MultiTrackRecorder")->Warning("%s", line.c_str());
    told_.push_back(line);
}

Recovery::Found Recovery::Take(const SegmentScan& scan, SegmentKey segment) {
    Found found;
    found.row = {segment, scan.length, 0, false, std::nullopt};
    found.damage = scan.damage;
    for (const ScannedBlock& block : scan.blocks) {
        found.row.time = found.row.time == 0 ? block.header.time : found.row.time;
        TakeControl(block, found);
    }
    found.extents = TakeRecords(scan, segment, nextSerials_);
    for (const TrackRow& track : found.newTracks) { // Not before: the extents are those of the blocks.
        nextSerials_[track.id] = std::max(nextSerials_[track.id], track.firstSerial);
    }
    TakeMissing(scan, segment, found);
    // A text whose records were lost before it does not hold for those that take their place.
    found.infos.erase(
        std::remove_if(found.infos.begin(), found.infos.end(),
                       [this](const InfoRow& info) { return info.from > nextSerials_[info.track]; }),
        found.infos.end());
    return found;
}

void Recovery::TakeControl(const ScannedBlock& block, Found& found) {
    const BlockHeader& header = block.header;
    if (!block.isWhole || header.kind == BlockKind::Records) {
        return;
    }
    if (header.kind == BlockKind::Info) {
        TakeInfo(header.track, header.firstSerial, std::string(block.body.begin(), block.body.end()), found);
    } else if (header.kind == BlockKind::Erased) {
        if (const auto erased = DecodeErased(header, block.body)) {
            found.erased.push_back({header.track, *erased});
        }
    } else if (const auto state = DecodeLaneState(block.body)) {
        TakeState(*state, found);
    }
}

void Recovery::TakeInfo(std::uint32_t track, std::uint64_t from, const std::string& text,
                        Found& found) const {
    found.infos.erase(
        std::remove_if(found.infos.begin(), found.infos.end(),
                       [&](const InfoRow& row) { return row.track == track && row.from == from; }),
        found.infos.end());
    found.infos.push_back({track, from, text, true});
}

/// Recordings and tracks are in the catalogue before they are in a state. One that it lacks although the newest state
/// has it was lost with a damaged log.
void Recovery::TakeState(const LaneState& state, Found& found) {
    found.newRecordings.clear();
    found.newTracks.clear();
    if (!HasId(content_.recordings, state.recording)) {
        found.newRecordings.push_back({state.recording, state.recordingInfo});
    }
    for (const TrackState& track : state.tracks) {
        if (HasId(content_.tracks, track.id)) {
            continue;
        }
        found.newTracks.push_back({track.id, state.recording, state.sparse, track.formatName,
                                   track.formatVersion, track.firstSerial, track.nextSerial});
        for (const SerialRange& range : track.erased) {
            found.erased.push_back({track.id, range});
        }
        if (!track.isInfoElsewhere && !track.info.empty()) {
            TakeInfo(track.id, track.infoFrom, track.info, found);
        }
    }
}

/// The texts that hold for the records of a scan as far as they are known.
InfoTexts Recovery::KnownInfos(const SegmentScan& scan, const Found& found) {
    InfoTexts known;
    for (const ScannedBlock& block : scan.blocks) {
        known.try_emplace(block.header.track);
    }
    for (const InfoRow& row : content_.infos) {
        const auto texts = known.find(row.track);
        if (texts != known.end()) {
            texts->second[row.from] = row.hasText ? row.text : catalogue_.GetInfo(row.track, row.from);
        }
    }
    for (const InfoRow& row : found.infos) {
        known[row.track][row.from] = row.text;
    }
    return known;
}

/// Records must not get the text of others because theirs is lost: they get none.
void Recovery::TakeMissing(const SegmentScan& scan, SegmentKey segment, Found& found) {
    for (const MissingInfo& missing : MissInfos(scan, KnownInfos(scan, found))) {
        if (HasId(content_.tracks, missing.track)) {
            Tell(folders_.PathOf(segment) + ": the info text of track " + std::to_string(missing.track) +
                 " from record " + std::to_string(missing.from) + " on is lost");
            TakeInfo(missing.track, missing.from, {}, found);
        }
    }
}

void Recovery::Write(const Found& found) {
    Catalogue::Transaction transaction(catalogue_);
    for (const RecordingRow& recording : found.newRecordings) {
        transaction.Restore(recording);
    }
    for (const TrackRow& track : found.newTracks) {
        Tell("track " + std::to_string(track.id) + " was missing in the catalogue; it is there again");
        transaction.Restore(track);
    }
    transaction.AddSegment(found.row);
    for (const ExtentRow& extent : found.extents) {
        transaction.AddExtent(extent);
    }
    for (const DamageRow& damage : found.damage) {
        transaction.AddDamage(damage);
    }
    for (const TrackRow& track : content_.tracks) {
        WriteTrack(transaction, track, found);
    }
    for (const TrackRow& track : found.newTracks) {
        WriteTrack(transaction, track, found);
    }
    transaction.Commit();
}

void Recovery::WriteTrack(Catalogue::Transaction& transaction, const TrackRow& track, const Found& found) {
    transaction.SetNextSerial(track.id, nextSerials_[track.id]);
    for (const InfoRow& info : found.infos) {
        if (info.track == track.id) {
            transaction.AddInfo(info);
        }
    }
    const ErasedRanges erased = ErasedOf(track, {&content_.erased, &found.erased});
    transaction.SetErased(track.id, erased.FirstSerial(), erased.Ranges());
}

/// As Write would have it, for what comes next.
void Recovery::AddToContent(const Found& found) {
    content_.recordings.insert(content_.recordings.end(), found.newRecordings.begin(),
                               found.newRecordings.end());
    content_.tracks.insert(content_.tracks.end(), found.newTracks.begin(), found.newTracks.end());
    // An erasure whose marker is durable is finished, whether or not its transaction was.
    std::vector<ErasedRow> erasedRows;
    for (TrackRow& track : content_.tracks) {
        const ErasedRanges erased = ErasedOf(track, {&content_.erased, &found.erased});
        track.firstSerial = erased.FirstSerial();
        track.nextSerial = std::max(track.nextSerial, nextSerials_[track.id]);
        for (const SerialRange& range : erased.Ranges()) {
            erasedRows.push_back({track.id, range});
        }
    }
    content_.erased = erasedRows;
    Join(content_.segments, {found.row},
         [](const SegmentRow& a, const SegmentRow& b) { return a.key < b.key; });
    Join(content_.extents, found.extents,
         [](const ExtentRow& a, const ExtentRow& b) { return a.segment < b.segment; });
    for (const InfoRow& info : found.infos) {
        content_.infos.erase(std::remove_if(content_.infos.begin(), content_.infos.end(),
                                            [&](const InfoRow& row) {
                                                return row.track == info.track && row.from == info.from;
                                            }),
                             content_.infos.end());
    }
    Join(content_.infos, found.infos, [](const InfoRow& a, const InfoRow& b) {
        return a.track != b.track ? a.track < b.track : a.from < b.from;
    });
    content_.damage.insert(content_.damage.end(), found.damage.begin(), found.damage.end());
}

} // namespace drenn::multi_track_recorder
