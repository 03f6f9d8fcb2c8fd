#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "drenn/multi_track_recorder/internal/recovery/Erasures.h"
#include "drenn/multi_track_recorder/internal/recovery/Opening.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentScan.h"

namespace drenn::multi_track_recorder {

/// Makes a catalogue from what the segments say.
///
/// Each lane is followed from its oldest segment on. A State block says anew what there is; the blocks behind it
/// add to that. Every record that can be read is taken over, whatever is damaged around it.
///
/// Errors: std::runtime_error when there is nothing to go by, or a later program wrote some of it. FileError.
class Rebuilder {
public:
    Rebuilder(IFileSystem& files, const StoreFolders& folders);

    /// Writes it to a database that is not there yet, and reads that back. Durable when it returns, except for the file's name.
    void Write(const std::string& path);
    /// What could not be taken over, each record by its number.
    const std::vector<std::string>& Lost() const { return lost_; }
    const StoreId& Id() const { return id_; }
    /// Segments of which nothing can be read.
    const std::vector<SegmentKey>& Unusable() const { return unusable_; }
    /// About how many bytes the catalogue takes.
    std::uint64_t Estimate() const;

private:
    struct Track {
        TrackState state;
        ErasedRanges erased;
    };
    struct Lane {
        LaneState state;
        std::map<std::uint32_t, Track> tracks;
        std::set<std::uint32_t> sinceState; ///< Tracks that records behind the newest state are of.
    };

    StoreId FindId();
    void Walk(SegmentKey key);
    void TakeControl(Lane& lane, const ScannedBlock& block);
    void TakeState(Lane& lane, LaneState state);
    void AddTracks();
    void AddLane(std::uint32_t id, const Lane& lane);
    void AddInfos();
    void MarkDead();
    void Check(const std::string& path) const;

    IFileSystem& files_;
    const StoreFolders folders_;
    const std::vector<SegmentKey> keys_;
    std::vector<std::string> lost_;
    const StoreId id_;
    std::map<std::uint32_t, Lane> lanes_;
    InfoTexts infos_;
    std::vector<MissingInfo> missingInfos_;
    NextSerials nextSerials_;
    std::vector<SegmentKey> unusable_;
    CatalogueContent content_;
};

} // namespace drenn::multi_track_recorder
