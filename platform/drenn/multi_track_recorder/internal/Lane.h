#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/internal/SegmentWriter.h"
#include "drenn/multi_track_recorder/internal/StoreContext.h"
#include "drenn/multi_track_recorder/internal/TrackContent.h"

namespace drenn::multi_track_recorder {

/// The sequence of segments that the tracks of one recording and one class share.
///
/// Threads: any.
/// Errors:  FileError when something cannot become durable; it stays in memory and is tried again.
class Lane {
public:
    /// `next`: the lane, and the sequence number of its next segment.
    Lane(StoreContext& context, SegmentKey next, std::uint32_t recording, bool sparse);

    std::uint32_t Id() const { return id_; }
    bool IsSparse() const { return sparse_; }

    void Add(const std::shared_ptr<TrackContent>& track);
    void Remove(std::uint32_t track);
    std::vector<std::shared_ptr<TrackContent>> Tracks() const;
    /// A sealed segment that the catalogue knows.
    void Add(const std::shared_ptr<Segment>& segment);
    void Forget(SegmentKey segment);
    std::vector<std::shared_ptr<Segment>> SealedSegments() const;
    /// Of those whose state and markers are durable: it is needed even if no record in it survives.
    bool IsNewest(SegmentKey segment) const;
    void SetRecordingInfo(const std::string& info);
    /// What a State block says has changed: one is written with what comes next.
    void NoteChange();

    void Commit();
    void Sync();
    /// The first half of a sync, so that the second halves of several lanes can come together: writes, and hands over
    /// to the device. False when nothing waits for a sync.
    bool BeginSync();
    void EndSync();
    /// Makes what a State block says durable, if the lane has segments.
    void WriteState();
    /// Syncs and seals the segment that is written.
    void Seal();
    /// The card is away: lets go of the file. What was not durable stays in memory.
    void Detach();
    /// The card is back, and these are the next numbers.
    void Attach(std::uint32_t nextSequence);
    /// Lists sealed segments without a surviving record as to be removed, except the newest of the lane, whose markers
    /// are needed.
    void MarkDead();

private:
    /// Those that MarkDead lists; they stay so under the catalogue's transaction.
    std::vector<std::shared_ptr<Segment>> DeadSegments() const;
    void Guard(const std::function<void()>& action);
    void CommitLocked();
    void SyncLocked();
    void SealLocked();
    void StartSegment();
    void StageState();
    void Publish(const SegmentWriter::Placed& placed);
    void ForgetTexts();
    std::vector<std::shared_ptr<PendingBlock>> TakeBatch();
    std::shared_ptr<PendingBlock> MakeState();
    TrackState StateOf(TrackContent& track);

    StoreContext& context_;
    const std::uint32_t id_;
    const std::uint32_t recording_;
    const bool sparse_;

    std::mutex writeMutex_;
    // Guarded by writeMutex_, which is held while the device works. Readers and appenders never take it.
    std::unique_ptr<SegmentWriter> writer_;
    std::vector<ExtentRow> extents_; ///< Of the segment that is written.
    std::vector<std::pair<std::shared_ptr<TrackContent>, InfoText>> infos_; ///< In it.
    std::uint32_t nextSequence_;

    mutable std::mutex tablesMutex_;
    // Guarded by tablesMutex_, which is held for work in memory only.
    std::map<std::uint32_t, std::shared_ptr<TrackContent>> tracks_;
    std::vector<std::shared_ptr<Segment>> segments_; ///< Sealed ones, oldest first.
    SegmentKey newest_;                              ///< That is durable.
    std::string recordingInfo_;
    bool hasChanged_ = false;
};

} // namespace drenn::multi_track_recorder
