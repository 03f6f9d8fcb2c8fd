#include "drenn/multi_track_recorder/internal/recovery/Rebuilder.h"

#include <algorithm>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentWalker.h"

namespace drenn::multi_track_recorder {

Rebuilder::Rebuilder(IFileSystem& files, const StoreFolders& folders)
    : files_(files), folders_(folders), keys_(ListSegments(files, folders.storage)), id_(FindId()) {
    for (const SegmentKey& key : keys_) {
        Walk(key);
    }
    AddTracks();
    AddInfos();
    MarkDead();
}

/// From its own file; if that is lost, from the first segment that can be read.
StoreId Rebuilder::FindId() {
    try {
        return ReadIdentity(files_, folders_.Identity());
    } catch (const LaterVersionError&) {
        throw;
    } catch (const std::exception& error) {
        lost_.emplace_back(error.what());
    }
    for (const SegmentKey& key : keys_) {
        try {
            const auto file = files_.Open(folders_.PathOf(key), OpenMode::Read);
            if (const auto header = SegmentWalker(*file, kSegmentHeaderBytes).Header()) {
                return header->store;
            }
        } catch (const FileError&) {
            // Walk tells of it.
        }
    }
    throw std::runtime_error("There is nothing in " + folders_.storage + " to rebuild a catalogue from");
}

void Rebuilder::Walk(SegmentKey key) {
    const std::string path = folders_.PathOf(key);
    SegmentScan scan;
    try {
        scan = ScanSegment(*files_.Open(path, OpenMode::Read), path, id_, key);
    } catch (const FileError& error) {
        lost_.emplace_back(error.what());
        return;
    }
    if (scan.owner == SegmentScan::Owner::Later) {
        throw LaterVersionError(path, std::to_string(scan.laterVersion));
    }
    if (scan.owner == SegmentScan::Owner::Other) {
        lost_.push_back(path + " belongs to another store; it is left alone");
        return;
    }
    lost_.insert(lost_.end(), scan.faults.begin(), scan.faults.end());
    if (scan.length == 0) {
        unusable_.push_back(key);
        return;
    }
    Lane& lane = lanes_[key.lane];
    for (const ScannedBlock& block : scan.blocks) {
        TakeControl(lane, block);
    }
    for (const MissingInfo& missing : MissInfos(scan, infos_)) {
        infos_[missing.track][missing.from] = {}; // Rather none than that of other records.
        missingInfos_.push_back(missing);
    }
    const std::vector<ExtentRow> extents = TakeRecords(scan, key, nextSerials_);
    content_.extents.insert(content_.extents.end(), extents.begin(), extents.end());
    content_.damage.insert(content_.damage.end(), scan.damage.begin(), scan.damage.end());
    content_.segments.push_back({key, scan.length, scan.blocks.front().header.time, false, std::nullopt});
}

void Rebuilder::TakeControl(Lane& lane, const ScannedBlock& block) {
    const BlockHeader& header = block.header;
    if (header.kind == BlockKind::Records) {
        if (!block.readable.empty()) {
            lane.sinceState.insert(header.track);
        }
    } else if (!block.isWhole) {
        return; // Told by the scan.
    } else if (header.kind == BlockKind::Info) {
        infos_[header.track][header.firstSerial] = std::string(block.body.begin(), block.body.end());
    } else if (header.kind == BlockKind::Erased) {
        const auto erased = DecodeErased(header, block.body);
        const auto track = lane.tracks.find(header.track);
        if (track != lane.tracks.end() && erased) {
            track->second.erased.Add(*erased);
        }
    } else if (auto state = DecodeLaneState(block.body)) {
        TakeState(lane, std::move(*state));
    }
}

void Rebuilder::TakeState(Lane& lane, LaneState state) {
    lane.tracks.clear();
    lane.sinceState.clear();
    for (TrackState& track : state.tracks) {
        if (!track.info.empty()) {
            infos_[track.id][track.infoFrom] = track.info;
        }
        lane.tracks[track.id] = {track, ErasedRanges(track.firstSerial, track.erased)};
    }
    lane.state = std::move(state);
    lane.state.tracks.clear();
}

void Rebuilder::AddTracks() {
    std::map<std::uint32_t, std::string> recordings;
    for (auto& [id, lane] : lanes_) {
        lane.state.recording = id / 2; // Also where no state can be read.
        lane.state.sparse = id % 2 != 0;
        std::string& info = recordings[lane.state.recording];
        info = lane.state.recordingInfo.empty() ? info : lane.state.recordingInfo;
        for (const std::uint32_t track : lane.sinceState) {
            if (lane.tracks.try_emplace(track).second) {
                lost_.push_back("the format of track " + std::to_string(track) + " is lost");
            }
        }
        AddLane(id, lane);
    }
    for (const auto& [id, info] : recordings) {
        content_.recordings.push_back({id, info});
    }
    std::sort(content_.tracks.begin(), content_.tracks.end(),
              [](const TrackRow& a, const TrackRow& b) { return a.id < b.id; });
}

void Rebuilder::AddLane(std::uint32_t id, const Lane& lane) {
    for (const auto& [number, track] : lane.tracks) {
        TrackRow row;
        row.id = number;
        row.recording = id / 2;
        row.sparse = id % 2 != 0;
        row.formatName = track.state.formatName;
        row.formatVersion = track.state.formatVersion;
        row.firstSerial = track.erased.FirstSerial();
        row.nextSerial = std::max(track.state.nextSerial, nextSerials_[number]);
        for (const SerialRange& range : track.erased.Ranges()) {
            content_.erased.push_back({number, range});
            row.nextSerial = std::max(row.nextSerial, range.end);
        }
        content_.tracks.push_back(std::move(row));
    }
}

void Rebuilder::AddInfos() {
    for (const TrackRow& track : content_.tracks) {
        for (const MissingInfo& missing : missingInfos_) {
            if (missing.track == track.id && missing.end > track.firstSerial) {
                lost_.push_back("the info text of track " + std::to_string(track.id) + " from record " +
                                std::to_string(missing.from) + " on is lost");
            }
        }
        for (const auto& [from, text] : infos_[track.id]) {
            if (from <= track.nextSerial) {
                content_.infos.push_back({track.id, from, text, true});
            }
        }
    }
}

/// The segments that opening would remove. One with damage may hold more than can be read today.
void Rebuilder::MarkDead() {
    std::set<SegmentKey> needed;
    for (const ExtentRow& extent : content_.extents) {
        if (needed.count(extent.segment) == 0 && SurvivorsOf(extent, content_) > 0) {
            needed.insert(extent.segment);
        }
    }
    for (const DamageRow& row : content_.damage) {
        needed.insert(row.segment);
    }
    for (std::size_t i = 0; i + 1 < content_.segments.size(); ++i) {
        SegmentRow& row = content_.segments[i];
        const bool isNewest = content_.segments[i + 1].key.lane != row.key.lane;
        row.removing = !isNewest && needed.count(row.key) == 0;
    }
}

std::uint64_t Rebuilder::Estimate() const {
    std::uint64_t bytes = std::uint64_t{20} * 4096; // Each table and index has a page, however empty.
    for (const InfoRow& info : content_.infos) {
        bytes += info.text.size() + 64;
    }
    return bytes + 64 * (content_.segments.size() + content_.extents.size() + content_.erased.size() +
                         content_.damage.size() + content_.tracks.size());
}

void Rebuilder::Write(const std::string& path) {
    const SqliteVfs vfs(files_);
    Catalogue::Build(path, vfs.Name(), [this](Catalogue::Transaction& transaction) {
        transaction.Make(id_);
        for (const RecordingRow& recording : content_.recordings) {
            transaction.Restore(recording);
        }
        if (!nextSerials_.empty()) { // Numbers of tracks that were erased are not given again.
            transaction.ReserveTracks(nextSerials_.rbegin()->first);
        }
        for (const TrackRow& track : content_.tracks) {
            transaction.Restore(track);
        }
        for (const SegmentRow& segment : content_.segments) {
            transaction.AddSegment(segment);
            if (segment.removing) {
                transaction.SetRemoving(segment.key);
            }
        }
        for (const ExtentRow& extent : content_.extents) {
            transaction.AddExtent(extent);
        }
        for (const DamageRow& row : content_.damage) {
            transaction.AddDamage(row);
        }
        for (const InfoRow& info : content_.infos) {
            transaction.AddInfo(info);
        }
        for (const TrackRow& track : content_.tracks) {
            const ErasedRanges erased = ErasedOf(track, {&content_.erased});
            transaction.SetErased(track.id, erased.FirstSerial(), erased.Ranges());
        }
    });
    files_.Open(path, OpenMode::ReadWrite)->Sync();
    Check(path);
}

/// That it is what was to be written, before anything is replaced by it.
void Rebuilder::Check(const std::string& path) const {
    const SqliteVfs vfs(files_, SqliteVfs::Access::ReadOnly);
    Catalogue catalogue(path, vfs.Name(), Catalogue::Mode::ReadOnly);
    const CatalogueContent content = catalogue.Load();
    const std::vector<std::string> wrong = catalogue.Check();
    if (!wrong.empty() || catalogue.GetId() != id_ || content.segments.size() != content_.segments.size() ||
        content.extents.size() != content_.extents.size() ||
        content.tracks.size() != content_.tracks.size()) {
        throw std::runtime_error("The new catalogue " + path + " is not what was written" +
                                 (wrong.empty() ? std::string() : ": " + wrong.front()));
    }
}

} // namespace drenn::multi_track_recorder
