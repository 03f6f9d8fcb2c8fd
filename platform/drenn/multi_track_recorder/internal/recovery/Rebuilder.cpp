#include "drenn/multi_track_recorder/internal/recovery/Rebuilder.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace drenn::multi_track_recorder {

Rebuilder::Rebuilder(IFileSystem& files, const StoreFolders& folders)
    : files_(files), folders_(folders), keys_(ListSegments(files, folders.storage)), id_(FindId()) {
    for (std::size_t i = 0; i < keys_.size(); ++i) {
        Walk(keys_[i], i + 1 == keys_.size() || keys_[i + 1].lane != keys_[i].lane);
    }
}

/// From its own file; if that is lost, from the first segment that can be read.
StoreId Rebuilder::FindId() {
    try {
        return ReadIdentity(files_, folders_.Identity());
    } catch (const std::exception& error) {
        lost_.emplace_back(error.what());
    }
    for (const SegmentKey& key : keys_) {
        const auto file = files_.Open(folders_.storage + "/" + FileNameOf(key), OpenMode::Read);
        if (const auto header = SegmentWalker(*file, std::numeric_limits<std::uint32_t>::max()).Header()) {
            return header->store;
        }
    }
    throw std::runtime_error("There is nothing in " + folders_.storage + " to rebuild a catalogue from");
}

void Rebuilder::Walk(SegmentKey key, bool isNewest) {
    const std::string path = folders_.storage + "/" + FileNameOf(key);
    const auto file = files_.Open(path, OpenMode::Read);
    SegmentWalker walker(*file, std::numeric_limits<std::uint32_t>::max());
    const auto& header = walker.Header();
    if (!header || header->store != id_ || header->lane != key.lane || header->sequence != key.sequence) {
        lost_.push_back(path + ": the header is damaged, or another store's");
        return;
    }
    SegmentRow row{key, 0, 0, false};
    // A crash ends the newest where something does not check; elsewhere that is damage, with more behind it.
    while (const auto block = isNewest ? walker.Next(true) : walker.Find()) {
        if (!isNewest &&
            !CheckBlock(*block, walker, std::max<std::uint64_t>(row.length, kSegmentHeaderBytes), path)) {
            // What it said is lost.
        } else if (block->kind != BlockKind::Records) {
            TakeControl(lanes_[key.lane], *block, walker.Body(*block));
        } else if (!Take(key, *block)) {
            break;
        }
        row.time = row.length == 0 ? block->time : row.time;
        row.length = block->End();
    }
    if (row.length == 0) {
        lost_.push_back(path + ": no block of it can be read");
        return;
    }
    if (!isNewest) { // The newest may have been cut short by a crash.
        CheckEnd(walker, *file, path);
    }
    segments_.push_back(row);
}

bool Rebuilder::Take(SegmentKey key, const BlockHeader& block) {
    std::uint64_t& next = nextSerials_[block.track];
    if (block.firstSerial < next) {
        return false;
    }
    const auto before = std::find_if(extents_.rbegin(), extents_.rend(), [&](const ExtentRow& extent) {
        return !(extent.segment == key) || extent.track == block.track;
    });
    if (before != extents_.rend() && before->segment == key &&
        before->firstSerial + before->count == block.firstSerial) {
        before->count += block.count;
    } else {
        extents_.push_back({block.track, key, block.firstSerial, block.count});
    }
    next = block.firstSerial + block.count;
    return true;
}

void Rebuilder::TakeControl(Lane& lane, const BlockHeader& block, const Bytes& body) {
    if (block.kind == BlockKind::Info) {
        infos_[{block.track, block.firstSerial}] = std::string(body.begin(), body.end());
    } else if (block.kind == BlockKind::Erased) {
        const auto track = lane.tracks.find(block.track);
        if (track != lane.tracks.end()) {
            track->second.erased.Add({block.firstSerial, ByteReader(body.data(), body.size()).U64()});
        }
    } else if (auto state = DecodeLaneState(body)) {
        lane.tracks.clear();
        for (TrackState& track : state->tracks) {
            if (!track.info.empty()) {
                infos_[{track.id, track.infoFrom}] = track.info;
            }
            lane.tracks[track.id] = {track, ErasedRanges(track.firstSerial, track.erased)};
        }
        lane.state = std::move(*state);
    }
}

/// Whether what a block says can be used. Of one of records that is damaged, the header can: each record that is whole
/// can be read.
bool Rebuilder::CheckBlock(const BlockHeader& block, const SegmentWalker& walker, std::uint64_t expected,
                           const std::string& path) {
    if (block.offset != expected) {
        lost_.push_back(path + ": the bytes from " + std::to_string(expected) + " to " +
                        std::to_string(block.offset) + " cannot be read");
    }
    if (walker.BodyChecks(block)) {
        return true;
    }
    lost_.push_back(path + ": the block at byte " + std::to_string(block.offset) + " is damaged");
    return block.kind == BlockKind::Records;
}

/// Behind the last block there is a footer, or nothing.
void Rebuilder::CheckEnd(const SegmentWalker& walker, const IFile& file, const std::string& path) {
    Bytes rest(static_cast<std::size_t>(file.Size() - walker.Offset()));
    file.Read(walker.Offset(), rest.data(), rest.size());
    if (!rest.empty() && !DecodeFooter(rest, walker.Header()->salt)) {
        lost_.push_back(path + ": the " + std::to_string(rest.size()) + " bytes from " +
                        std::to_string(walker.Offset()) + " on cannot be read");
    }
}

std::vector<std::string> Rebuilder::Write(const std::string& path, const char* vfs) {
    Catalogue catalogue(path, vfs, Catalogue::Mode::OpenOrMake);
    Catalogue::Transaction transaction(catalogue);
    transaction.Make(id_);
    std::map<std::uint32_t, const Track*> tracks;
    WriteTracks(transaction, tracks);
    WriteSegments(transaction, tracks);
    for (const auto& [key, text] : infos_) {
        const auto track = tracks.find(key.first);
        const auto next = nextSerials_.find(key.first);
        const std::uint64_t end = std::max(next == nextSerials_.end() ? 0 : next->second,
                                           track == tracks.end() ? 0 : track->second->state.nextSerial);
        if (track != tracks.end() && key.second <= end) {
            transaction.AddInfo({key.first, key.second, text});
        }
    }
    for (const auto& [id, track] : tracks) {
        transaction.SetErased(id, track->erased.FirstSerial(), track->erased.Ranges());
    }
    transaction.Commit();
    return lost_;
}

void Rebuilder::WriteTracks(Catalogue::Transaction& transaction,
                            std::map<std::uint32_t, const Track*>& tracks) const {
    std::map<std::uint32_t, std::string> recordings;
    for (const auto& [id, lane] : lanes_) {
        std::string& info = recordings[lane.state.recording];
        info = lane.state.recordingInfo.empty() ? info : lane.state.recordingInfo;
        for (const auto& [track, content] : lane.tracks) {
            tracks[track] = &content;
        }
    }
    for (const auto& [id, info] : recordings) {
        transaction.Restore(RecordingRow{id, info});
    }
    for (const auto& [id, lane] : lanes_) {
        for (const auto& [track, content] : lane.tracks) {
            TrackRow row;
            row.id = track;
            row.recording = lane.state.recording;
            row.sparse = lane.state.sparse;
            row.formatName = content.state.formatName;
            row.formatVersion = content.state.formatVersion;
            row.nextSerial = content.state.nextSerial;
            transaction.Restore(row);
        }
    }
}

void Rebuilder::WriteSegments(Catalogue::Transaction& transaction,
                              const std::map<std::uint32_t, const Track*>& tracks) const {
    for (const SegmentRow& segment : segments_) {
        transaction.AddSegment(segment);
        std::uint64_t survivors = 0;
        for (const ExtentRow& extent : extents_) {
            const auto track = tracks.find(extent.track);
            if (!(extent.segment == segment.key)) {
                continue;
            }
            transaction.AddExtent(extent);
            if (track != tracks.end()) {
                Survivors left;
                left.Append({extent.firstSerial, extent.firstSerial + extent.count});
                left.Erase({0, track->second->erased.FirstSerial()});
                for (const SerialRange& range : track->second->erased.Ranges()) {
                    left.Erase(range);
                }
                survivors += left.Size();
            }
        }
        const bool isNewest = &segment == &segments_.back() || (&segment + 1)->key.lane != segment.key.lane;
        if (survivors == 0 && !isNewest) {
            transaction.SetRemoving(segment.key);
        }
    }
}

} // namespace drenn::multi_track_recorder
