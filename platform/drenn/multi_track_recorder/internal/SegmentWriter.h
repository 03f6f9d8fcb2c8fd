#pragma once

#include <memory>
#include <vector>

#include "drenn/multi_track_recorder/internal/PendingBlock.h"
#include "drenn/multi_track_recorder/internal/SegmentReader.h"
#include "drenn/multi_track_recorder/internal/StoreContext.h"

namespace drenn::multi_track_recorder {

/// Writes the one segment of a lane that is not sealed.
///
/// Threads: one at a time.
/// Errors:  FileError. After one from Write, what was staged is as if it had never been; after one from Sync,
///          or one from Write that is not for want of room, the file is not to be written any more: see Break.
class SegmentWriter {
public:
    struct Placed {
        std::shared_ptr<PendingBlock> block;
        std::uint32_t offset;
    };

    /// Makes the file.
    SegmentWriter(StoreContext& context, SegmentKey key);

    /// Whether a block of this length still has a place; the first one has, however large.
    bool HasRoomFor(std::uint64_t length) const;
    void Stage(const std::shared_ptr<PendingBlock>& block);
    /// Writes what is staged.
    void Write();
    bool IsEmpty() const { return end_ == 0 && staged_.empty(); }
    bool NeedsSync() const { return !isBroken_ && syncedEnd_ < end_; }
    /// Whether a batch of this length is better written to a new segment than to the rest of this one and a new one:
    /// nothing of this one waits for a sync then, and it is not small.
    bool IsFullFor(std::uint64_t length) const;
    /// Hands over what was written to the device, so that Sync takes little time.
    void WriteOut();
    /// Makes durable what was written, and returns those blocks.
    std::vector<Placed> Sync();
    /// From now on nothing is written here; what is not synced is to go elsewhere.
    void Break();
    bool IsBroken() const { return isBroken_; }
    /// The directory behind the end, for faster opening. Not synced: without it the blocks are walked.
    void WriteFooter();

    std::uint64_t SyncedEnd() const { return syncedEnd_; } ///< 0: nothing of it can be relied on.
    const std::shared_ptr<Segment>& GetSegment() const { return segment_; }
    SegmentDirectory& Directory() { return *directory_; }

private:
    void WriteStaged();

    StoreContext& context_;
    const std::shared_ptr<Segment> segment_;
    const std::shared_ptr<IFile> file_;
    const SegmentHeader header_;
    const std::shared_ptr<SegmentDirectory> directory_;
    std::vector<Placed> staged_;
    std::uint64_t stagedEnd_ = 0;
    std::vector<Placed> unsynced_;
    std::uint64_t end_ = 0;
    std::uint64_t syncedEnd_ = 0;
    bool isBroken_ = false;
};

} // namespace drenn::multi_track_recorder
