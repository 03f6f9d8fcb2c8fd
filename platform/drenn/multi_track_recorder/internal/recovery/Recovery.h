#pragma once

#include <map>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/internal/recovery/Opening.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentScan.h"

namespace drenn::multi_track_recorder {

/// Brings a store that was not closed into order: redoes removals, and seals what was being written with everything in
/// it that can be read. It cuts no file, and removes none that may hold records: a file of which nothing can be told is
/// set aside.
///
/// Errors: std::runtime_error that names the file when a later program wrote it; nothing was changed then. FileError.
class Recovery {
public:
    Recovery(IFileSystem& files, const StoreFolders& folders, const StoreId& id, Catalogue& catalogue);

    /// Throws when a segment that is not sealed is of a later version. Changes nothing.
    void RequireKnownVersions() const;
    void Run();
    /// What Run would come to, in memory alone: for a store that cannot be changed.
    void RunInMemory();

    const CatalogueContent& Content() const { return content_; }
    const std::map<std::uint32_t, std::uint32_t>& NextSequences() const { return nextSequences_; }
    /// What was found damaged, set aside or left alone, one line each.
    const std::vector<std::string>& Told() const { return told_; }

private:
    struct Found {
        SegmentRow row;
        std::vector<ExtentRow> extents;
        std::vector<InfoRow> infos;
        std::vector<ErasedRow> erased;
        std::vector<DamageRow> damage;
        std::vector<RecordingRow> newRecordings;
        std::vector<TrackRow> newTracks;
    };
    void ForEachUnsealed(bool isInMemory);
    void RemoveDead();
    bool IsDead(const SegmentRow& segment) const;
    void SealSegment(SegmentKey segment, bool isInMemory);
    void PutAway(SegmentKey segment, const SegmentScan& scan);
    void Tell(const std::string& line);
    Found Take(const SegmentScan& scan, SegmentKey segment);
    void TakeControl(const ScannedBlock& block, Found& found);
    void TakeState(const LaneState& state, Found& found);
    void TakeInfo(std::uint32_t track, std::uint64_t from, const std::string& text, Found& found) const;
    InfoTexts KnownInfos(const SegmentScan& scan, const Found& found);
    void TakeMissing(const SegmentScan& scan, SegmentKey segment, Found& found);
    void Write(const Found& found);
    void WriteTrack(Catalogue::Transaction& transaction, const TrackRow& track, const Found& found);
    void AddToContent(const Found& found);

    IFileSystem& files_;
    const StoreFolders folders_;
    const StoreId id_;
    Catalogue& catalogue_;
    CatalogueContent content_;
    NextSerials nextSerials_; ///< Of tracks, as the catalogue and the scans know them.
    std::map<std::uint32_t, std::uint32_t> nextSequences_;
    std::vector<std::string> told_;
};

} // namespace drenn::multi_track_recorder
