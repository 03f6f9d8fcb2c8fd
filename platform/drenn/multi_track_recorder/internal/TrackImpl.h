#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "drenn/multi_track_recorder/Track.h"
#include "drenn/multi_track_recorder/internal/FairMutex.h"
#include "drenn/multi_track_recorder/internal/Lane.h"
#include "drenn/multi_track_recorder/internal/StoreContext.h"
#include "drenn/multi_track_recorder/internal/TrackContent.h"

namespace drenn::multi_track_recorder {

/// What a Track stands for.
///
/// Threads: any; every operation takes the track's lock.
class TrackImpl {
public:
    /// `relieve` is called without locks before every append, and waits when much is in memory. It may be called when
    /// the store is gone.
    TrackImpl(StoreContext& context, Lane& lane, std::shared_ptr<TrackContent> content,
              std::function<void()> relieve);

    const std::shared_ptr<TrackContent>& Content() const { return content_; }

    DataFormatVersion GetFormat() const;
    void SetFormat(const DataFormatVersion& format);
    std::uint32_t Size() const;
    void Seek(std::uint32_t index);
    std::uint32_t Tell() const;
    void Read(BlobRecord& record);
    void Append(const BlobRecord& record);
    std::pair<std::uint32_t, std::uint32_t> GetInfoRange() const;
    std::string GetInfo() const;
    void SetInfo(const std::string& text);
    Track::Leading GetLeading(std::uint32_t index) const;
    Track::KnownRecords FindKnown(const std::function<bool(const LeadingBytes&)>& isBefore) const;
    Track::KnownRecords FindNear(std::uint32_t index,
                                 const std::function<bool(const Track::Leading&)>& isBefore) const;
    void EraseRange(std::uint32_t first, std::uint32_t last);
    boost::signals2::connection ConnectToEraseRangeSignal(const Track::EraseRangeSignal::slot_type& slot);

    /// The ring: raises the signal and forgets all records up to this serial. Their segment is removed behind that.
    void EraseOldest(std::uint64_t end);
    /// Erases the track with what it holds.
    void EraseAll();
    /// The store is gone, or the track: every operation throws from now on.
    void Detach(const std::string& reason);

    void Lock() const;
    void Unlock() const;
    /// How many locks of tracks this thread holds.
    static int LocksHeld();

private:
    using Guard = std::lock_guard<const TrackImpl>;
    friend Guard;
    void lock() const { Lock(); }
    void unlock() const { Unlock(); }

    void RequireAttached() const;
    void CheckSizes(const BlobRecord& record) const;
    void CheckFitsCard(const BlobRecord& record) const;
    /// Where a record is: in one of the two.
    struct Place {
        std::uint64_t serial = 0;
        std::shared_ptr<const PendingBlock> block;
        std::shared_ptr<Segment> segment;
    };
    Place PlaceAt(std::uint32_t index) const;
    void ReadPlace(const Place& place, BlobRecord& record) const;
    std::uint64_t SerialAt(std::uint32_t index) const;
    Track::KnownRecords FindAmong(SerialRange range,
                                  const std::function<bool(const Track::Leading&)>& isBefore,
                                  const std::function<Track::Leading(std::uint64_t)>& leadingOf) const;
    void Raise(std::uint32_t first, std::uint32_t last) const;
    void EraseSerials(SerialRange range);
    void Remove(Catalogue::Transaction& transaction, SerialRange range);
    void Add(const std::shared_ptr<PendingBlock>& block);
    void DropMarker(const std::shared_ptr<PendingBlock>& block);
    std::string Name() const;

    StoreContext& context_;
    Lane& lane_;
    const std::shared_ptr<TrackContent> content_;
    const std::function<void()> relieve_;
    Track::EraseRangeSignal eraseRangeSignal_;
    std::string detached_; ///< Why, if so.

    mutable FairMutex mutex_;
    // Guarded by mutex_.
    std::uint32_t position_ = 0;
    // The text that was asked for last of those that only the catalogue has.
    mutable std::pair<std::uint64_t, std::shared_ptr<const std::string>> lastInfo_;
};

} // namespace drenn::multi_track_recorder
