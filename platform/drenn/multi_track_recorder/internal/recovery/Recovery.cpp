#include "drenn/multi_track_recorder/internal/recovery/Recovery.h"

#include <algorithm>
#include <limits>

#include "drenn/multi_track_recorder/internal/Survivors.h"
#include "quarn/core/Logger.h"

namespace drenn::multi_track_recorder {

Recovery::Recovery(IFileSystem& files, const StoreFolders& folders, const StoreId& id, Catalogue& catalogue)
    : files_(files), folders_(folders), id_(id), catalogue_(catalogue), content_(catalogue.Load()) {}

void Recovery::Run() {
    RemoveDead();
    for (const TrackRow& track : content_.tracks) {
        nextSerials_[track.id] = track.nextSerial;
    }
    for (const SegmentKey& next : content_.nextSegments) {
        nextSequences_[next.lane] = next.sequence;
    }
    for (const SegmentKey& segment : ListSegments(files_, folders_.storage)) {
        std::uint32_t& next = nextSequences_.try_emplace(segment.lane, 1).first->second;
        if (segment.sequence >= next) {
            SealSegment(segment);
            content_ = catalogue_.Load();
            next = segment.sequence + 1;
        }
    }
}

/// Those that the catalogue lists as to be removed.
void Recovery::RemoveDead() {
    std::vector<SegmentKey> dead;
    for (const SegmentRow& segment : content_.segments) {
        if (segment.removing) {
            files_.Remove(folders_.storage + "/" + FileNameOf(segment.key));
            dead.push_back(segment.key);
        }
    }
    if (dead.empty()) {
        return;
    }
    files_.SyncFolder(folders_.storage);
    Catalogue::Transaction transaction(catalogue_);
    for (const SegmentKey& segment : dead) {
        transaction.Forget(segment);
    }
    transaction.Commit();
}

void Recovery::SealSegment(SegmentKey segment) {
    const std::string path = folders_.storage + "/" + FileNameOf(segment);
    const auto file = files_.Open(path, OpenMode::ReadWrite);
    SegmentWalker walker(*file, std::numeric_limits<std::uint32_t>::max());
    const auto& header = walker.Header();
    if (header &&
        (header->store != id_ || header->lane != segment.lane || header->sequence != segment.sequence)) {
        quarn::core::Logger::GetLogger("MultiTrackRecorder")
            ->Warning("%s belongs to another store; it is left alone", path.c_str());
        return;
    }
    const Found found = Walk(walker, segment);
    if (found.length == 0) {
        files_.Remove(path);
        files_.SyncFolder(folders_.storage);
        return;
    }
    // What a killed process wrote may not be durable yet; what the catalogue knows must be.
    if (file->Size() != found.length) {
        file->Truncate(found.length);
    }
    file->Sync();
    files_.SyncFolder(folders_.storage);
    Write(segment, found);
    content_ = catalogue_.Load();
}

Recovery::Found Recovery::Walk(SegmentWalker& walker, SegmentKey segment) {
    Found found;
    while (const auto block = walker.Next(true)) {
        if (block->kind == BlockKind::Records && !Take(*block, segment, found)) {
            break;
        }
        if (block->kind != BlockKind::Records) {
            TakeControl(walker, *block, found);
        }
        found.time = found.length == 0 ? block->time : found.time;
        found.length = block->End();
    }
    return found;
}

/// False for records that are there already.
bool Recovery::Take(const BlockHeader& block, SegmentKey segment, Found& found) {
    std::uint64_t& next = nextSerials_[block.track];
    if (block.firstSerial < next) {
        return false;
    }
    const auto before =
        std::find_if(found.extents.begin(), found.extents.end(), [&](const ExtentRow& extent) {
            return extent.track == block.track && extent.firstSerial + extent.count == block.firstSerial;
        });
    if (before != found.extents.end()) {
        before->count += block.count;
    } else {
        found.extents.push_back({block.track, segment, block.firstSerial, block.count});
    }
    next = block.firstSerial + block.count;
    return true;
}

void Recovery::TakeControl(const SegmentWalker& walker, const BlockHeader& block, Found& found) const {
    const Bytes body = walker.Body(block);
    if (block.kind == BlockKind::Info) {
        found.infos.push_back({block.track, block.firstSerial, std::string(body.begin(), body.end())});
    } else if (block.kind == BlockKind::Erased) {
        found.erased.push_back(
            {block.track, {block.firstSerial, ByteReader(body.data(), body.size()).U64()}});
    }
}

void Recovery::Write(SegmentKey segment, const Found& found) {
    Catalogue::Transaction transaction(catalogue_);
    transaction.AddSegment({segment, found.length, found.time, false});
    for (const ExtentRow& extent : found.extents) {
        transaction.AddExtent(extent);
    }
    for (const TrackRow& track : content_.tracks) {
        for (const InfoRow& info : found.infos) {
            // A text whose records were lost before it does not hold for those that take their place.
            if (info.track == track.id && info.from <= nextSerials_[track.id]) {
                transaction.AddInfo(info);
            }
        }
        std::vector<SerialRange> before;
        for (const ErasedRow& row : content_.erased) {
            if (row.track == track.id) {
                before.push_back(row.range);
            }
        }
        // An erasure whose marker is durable is finished, whether or not its transaction was.
        ErasedRanges erased(track.firstSerial, before);
        for (const ErasedRow& row : found.erased) {
            if (row.track == track.id) {
                erased.Add(row.range);
            }
        }
        transaction.SetErased(track.id, erased.FirstSerial(), erased.Ranges());
    }
    transaction.Commit();
}

} // namespace drenn::multi_track_recorder
