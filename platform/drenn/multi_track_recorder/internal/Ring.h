#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "drenn/multi_track_recorder/internal/StoreTables.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

/// Keeps the used share of the card below the limit: erases the oldest segments, and removes the files of those that
/// have no surviving record.
///
/// Threads:  one at a time, under the keeper's lock of the store; takes locks of tracks, one after the other, so that
///           the caller holds none.
/// Errors:   FileError; the next call goes on with what was begun.
/// Lifetime: Attach, when the tables were built; anything else; Detach, when the card is away; Attach ...
///           `context` and `tables` outlive it.
class Ring {
public:
    Ring(StoreContext& context, StoreTables& tables);

    void Attach();
    /// Forgets what was begun: what counts is what the catalogue has.
    void Detach();
    /// What a crash left, once after opening. Without room, it has to wait.
    void Tidy();
    /// A round of the keeper: goes on with what was begun, removes, makes room.
    void Keep();
    /// Erases the oldest segments until the used share, with what is about to come, is below the limit.
    void MakeRoom();
    /// Erases the oldest sealed segment of sparse tracks, or of the others; false when there is none.
    bool EraseOldest(bool sparse);
    /// Has the catalogue forget the segments whose files are gone.
    void ForgetRemoved();
    /// Whether there is room for the reserve, and more.
    bool HasRoomForReserve() const;

private:
    /// A segment that is being erased.
    struct Erasing {
        struct Part {
            std::shared_ptr<TrackImpl> track;
            std::uint64_t end; ///< Of the track's records in the segment.
        };
        std::shared_ptr<Segment> segment;
        std::vector<Part> parts;
    };

    Space LookAtSpace();
    bool RemoveAside();
    std::shared_ptr<Segment> NextToErase();
    std::shared_ptr<Segment> OldestSegment(bool sparse) const;
    void SealBulk();
    void EraseSegment(const std::shared_ptr<Segment>& segment);
    void FinishErasing();
    void RemoveDead();
    void ForgetRemoved(Catalogue::Transaction& transaction);
    void KeepReserve();

    StoreContext& context_;
    StoreTables& tables_;

    // Guarded by the keeper's lock.
    bool isOverfull_ = false;
    bool hasAside_ = false; ///< There may be files to be removed before any segment.
    bool hasReserve_ = false;
    std::optional<Erasing> erasing_;  ///< Begun; the catalogue does not know yet.
    std::vector<SegmentKey> removed_; ///< Files that are gone for good, for the catalogue to forget.
};

} // namespace drenn::multi_track_recorder
