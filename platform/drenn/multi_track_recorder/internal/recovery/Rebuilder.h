#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "drenn/multi_track_recorder/internal/Survivors.h"
#include "drenn/multi_track_recorder/internal/recovery/Opening.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentWalker.h"

namespace drenn::multi_track_recorder {

/// Makes a catalogue from what the segments say.
///
/// Each lane is followed from its oldest segment on. A State block says anew what there is; the blocks behind it
/// add to that.
class Rebuilder {
public:
    Rebuilder(IFileSystem& files, const StoreFolders& folders);

    /// Writes it to an empty database. Returns what could not be taken over.
    std::vector<std::string> Write(const std::string& path, const char* vfs);
    const StoreId& Id() const { return id_; }

private:
    struct Track {
        TrackState state;
        ErasedRanges erased;
    };
    struct Lane {
        LaneState state;
        std::map<std::uint32_t, Track> tracks;
    };
    using Infos = std::map<std::pair<std::uint32_t, std::uint64_t>, std::string>;

    StoreId FindId();
    void Walk(SegmentKey key, bool isNewest);
    bool Take(SegmentKey key, const BlockHeader& block);
    void TakeControl(Lane& lane, const BlockHeader& block, const Bytes& body);
    bool CheckBlock(const BlockHeader& block, const SegmentWalker& walker, std::uint64_t expected,
                    const std::string& path);
    void CheckEnd(const SegmentWalker& walker, const IFile& file, const std::string& path);
    void WriteTracks(Catalogue::Transaction& transaction,
                     std::map<std::uint32_t, const Track*>& tracks) const;
    void WriteSegments(Catalogue::Transaction& transaction,
                       const std::map<std::uint32_t, const Track*>& tracks) const;

    IFileSystem& files_;
    const StoreFolders folders_;
    const std::vector<SegmentKey> keys_;
    const StoreId id_;
    std::vector<std::string> lost_;
    std::map<std::uint32_t, Lane> lanes_;
    std::vector<SegmentRow> segments_;
    std::vector<ExtentRow> extents_;
    Infos infos_;
    std::map<std::uint32_t, std::uint64_t> nextSerials_;
};

} // namespace drenn::multi_track_recorder
