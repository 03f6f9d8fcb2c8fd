#pragma once

#include <map>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/internal/recovery/Opening.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentWalker.h"

namespace drenn::multi_track_recorder {

/// Brings a store that was not closed into order: redoes removals, and seals what was being written at the end of
/// its valid part.
class Recovery {
public:
    Recovery(IFileSystem& files, const StoreFolders& folders, const StoreId& id, Catalogue& catalogue);

    void Run();
    const std::map<std::uint32_t, std::uint32_t>& NextSequences() const { return nextSequences_; }

private:
    struct Found {
        std::uint64_t length = 0;
        std::uint64_t time = 0;
        std::vector<ExtentRow> extents;
        std::vector<InfoRow> infos;
        std::vector<ErasedRow> erased;
    };
    void RemoveDead();
    void SealSegment(SegmentKey segment);
    Found Walk(SegmentWalker& walker, SegmentKey segment);
    bool Take(const BlockHeader& block, SegmentKey segment, Found& found);
    void TakeControl(const SegmentWalker& walker, const BlockHeader& block, Found& found) const;
    void Write(SegmentKey segment, const Found& found);

    IFileSystem& files_;
    const StoreFolders folders_;
    const StoreId id_;
    Catalogue& catalogue_;
    CatalogueContent content_;
    std::map<std::uint32_t, std::uint64_t>
        nextSerials_; ///< Of tracks, as the catalogue and the walk know them.
    std::map<std::uint32_t, std::uint32_t> nextSequences_;
};

} // namespace drenn::multi_track_recorder
