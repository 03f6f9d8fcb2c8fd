#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/Track.h"
#include "drenn/multi_track_recorder/internal/PendingBlock.h"
#include "drenn/multi_track_recorder/internal/SegmentReader.h"
#include "drenn/multi_track_recorder/internal/Survivors.h"

namespace drenn::multi_track_recorder {

/// Records of a track that lie in one segment.
struct Extent {
    SerialRange range;
    std::shared_ptr<Segment> segment;
    std::optional<RecordsHint> hint; ///< Where it is known.
};

/// An info text, for the records from here on.
struct InfoText {
    std::uint64_t from;
    std::shared_ptr<const std::string> text; ///< Nothing: the catalogue has it.
    std::uint32_t tag = 0; ///< InfoTag, or 0 for one that was sealed before the store was opened.
};

/// What a track consists of; shared by the track, which reads and appends, and its lane, which writes.
///
/// Threads: any that holds `mutex`, which is only held for work in memory. Appending and erasing also take the
///          track's own lock, so that readers see no change between two steps.
struct TrackContent {
    TrackContent(std::uint32_t trackId, std::uint32_t recordingId, bool isSparse)
        : id(trackId), recording(recordingId), sparse(isSparse) {}

    const std::uint32_t id;
    const std::uint32_t recording;
    const bool sparse;

    mutable std::mutex mutex;
    bool isErased = false; ///< The whole track.
    std::string formatName;
    std::uint32_t formatVersion = 0;
    std::uint64_t nextSerial = 0;
    ErasedRanges erased; ///< As the catalogue has it.
    std::optional<SerialRange>
        marked; ///< Being erased: the marker is durable, the transaction is yet to come.
    Survivors survivors;
    std::vector<Extent> extents;                       ///< Durable records.
    std::deque<std::shared_ptr<PendingBlock>> pending; ///< Not yet durable, in the order of appending.
    std::vector<InfoText> infos;

    /// The block that records are appended to now; made when there is none. Under `mutex`.
    PendingBlock& OpenBlock();
    /// The block in memory that has this record, or nothing. Under `mutex`.
    std::shared_ptr<const PendingBlock> FindPending(std::uint64_t serial) const;
    /// The segment that has this record, or nothing. Under `mutex`.
    std::shared_ptr<Segment> FindSegment(std::uint64_t serial) const;
    /// As Track::findKnown. Under `mutex`.
    Track::KnownRecords FindKnown(const std::function<bool(const LeadingBytes&)>& isBefore) const;
    /// The end of the records in this segment; 0 when it has none.
    std::uint64_t EndIn(const Segment& segment) const;
    /// The place in `infos` of the text that holds for this record, or infos.size(). Under `mutex`.
    std::size_t FindInfo(std::uint64_t serial) const;
    /// Everything before is in a segment or on the way to it. Under `mutex`.
    std::uint64_t FirstUnwritten() const;
    /// Adds durable records. Under `mutex`.
    void AddExtent(const std::shared_ptr<Segment>& segment, SerialRange range,
                   const std::optional<RecordsHint>& hint);
    /// These records do not survive. Under `mutex`.
    void Forget(SerialRange range);
    /// What the catalogue says is erased. Under `mutex`.
    void SetErased(const ErasedRanges& ranges);
};

} // namespace drenn::multi_track_recorder
