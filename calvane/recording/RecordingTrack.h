#pragma once

#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/signals2/connection.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "calvane/Export.h"
#include "calvane/recording/Coverage.h"
#include "calvane/recording/RecordHeader.h"
#include "calvane/recording/RecordingStatus.h"
#include "calvane/recording/track_type.h"

namespace drenn::multi_track_recorder {
class BlobRecord;
class Recording;
class Track;
} // namespace drenn::multi_track_recorder

namespace quarn::calvane {

class ITrackOwner;

/// One kind of recorded data: finds records by time, keeps times from falling, and reports what is erased.
/// docs/reference/record-format.md describes the records.
///
/// Threads:   any, for every operation. Reading holds the track's lock, and nothing else. Writing holds a lock
///            of the writers', so that a writer that waits for the device does not keep readers waiting. Who
///            holds a track's lock calls neither writeRecord nor ensureIncreasingTimestamps: a clock that went
///            back makes them take the locks of all tracks, one after the other.
/// Errors:    std::runtime_error "Parse error in recorded data" for a record without a proper header;
///            std::out_of_range for times outside the data; what the store throws. Looking for a time passes over
///            records that cannot be read.
/// Lifetime:  initTrack before anything else. Its owner outlives it.
class CALVANE_API RecordingTrack {
public:
    using Ptime = boost::posix_time::ptime;

    /// Without an owner it can be read, and written to as long as times do not fall.
    explicit RecordingTrack(int type, ITrackOwner* owner = nullptr);
    virtual ~RecordingTrack();
    RecordingTrack(const RecordingTrack&) = delete;
    RecordingTrack& operator=(const RecordingTrack&) = delete;

    /// Binds the recording's track of this type that has records, or makes one.
    void initTrack(boost::shared_ptr<drenn::multi_track_recorder::Recording>& recording);
    track_type getTrackType() const { return _trackType; }
    /// Null before initTrack.
    const boost::shared_ptr<drenn::multi_track_recorder::Track>& getTrack() const { return _track; }

    /// Erases all records.
    void clearTrack();
    /// From now on looking for times ignores what erasing up to `cutoff` would take: the records up to the last one that is
    /// not later. Not-a-date-time hides nothing.
    void hideBefore(const Ptime& cutoff);
    Ptime getTimestampAtIndex(unsigned int index) const;
    /// The same; nothing for a record that cannot be read, which the log tells once.
    std::optional<Ptime> findTimestamp(unsigned int index) const;
    /// Tells the log that a record was passed over, for the first few: what is damaged stays so, and is met again.
    void notePassedOver(unsigned int index, const char* problem) const;
    /// The first record from `index` on whose time can be read; the size if there is none.
    unsigned int getFirstReadableIndex(unsigned int index) const;
    /// The last record in front of `end` whose time can be read; nothing if there is none.
    std::optional<unsigned int> findLastReadableIndex(unsigned int end) const;
    /// Whether the record at `index` is earlier than `t`.
    bool timestampLessThan(unsigned int index, const Ptime& t) const;
    /// The times of the first and the last record that can be read; false, and nothing set, if there are none.
    bool getRecordingTimePeriod(Ptime& first, Ptime& last) const;
    /// The same; it reads nothing where it has been asked before and no record has come or gone since. For telling what is
    /// there: who erases looks for himself, since the card may just be going.
    bool getKnownTimePeriod(Ptime& first, Ptime& last) const;
    /// The first record of exactly this time, otherwise the first of those of the last time before it.
    unsigned int getTrackIndex(const Ptime& t) const;
    /// The same; before all data it is 0, behind all data the last index.
    unsigned int getTrackIndexForcedIntoBounds(const Ptime& t) const;
    /// The first record behind all those that are earlier than `t`; the size if there is none. It need not be
    /// readable: of damaged records between an earlier and a later one it is the first. Not-a-date-time is later than
    /// everything.
    unsigned int getFirstIndexNotBefore(const Ptime& t) const;
    /// The times of two records around a time.
    struct Surroundings {
        Ptime before;
        Ptime behind;
        /// From `before` to `behind` no record is further from the next one.
        boost::posix_time::time_duration step;
    };
    /// Of the records next to `t`, in front of it and behind it, or twice that of a record at `t`. Nothing where there is none
    /// on one side, or where it takes a closer look: one cannot be read or is hidden.
    std::optional<Surroundings> findAround(const Ptime& t) const;
    /// Of two records around `t` that the store knows without reading, from its catalogue: the first one is earlier than `t`,
    /// the second one is not. Nothing where it knows none on one side, or one is hidden.
    std::optional<Surroundings> findKnownAround(const Ptime& t) const;
    /// The info map that holds at `t`, and the times of the first and the last record that it holds for.
    void getTrackInfoAt(const Ptime& t, std::map<std::string, std::string>& info, Ptime& rangeStart,
                        Ptime& rangeEnd);

    /// To be called before a record of time `t` is written. False: it must not be, since the clock has not been
    /// set, or came up behind the newest record and may yet be. When the time went back, what is recorded from `t` on
    /// is erased from all tracks; std::runtime_error where that cannot be done, and the next record tries again.
    bool ensureIncreasingTimestamps(const Ptime& t);
    /// Writes a record: ensureIncreasingTimestamps, header, payload. `flags` are those of RecordHeader,
    /// `compositionOffset` is its setCompositionOffset. False:
    /// it was not written, since the clock has not been set. Throws what the store throws when it refuses.
    /// A clock that jumped forward goes into the history as a gap, provided that the data is reported present.
    bool writeRecord(const Ptime& t, unsigned int flags, const void* data, std::size_t size,
                     std::int64_t compositionOffset = 0);
    /// What was written and refused; the rest is not set.
    TrackStatus getWritten() const;
    /// The map holds for all records written from now on. The same map again costs next to nothing.
    void setInfo(const std::map<std::string, std::string>& info);
    /// Tells clients and the history that the data begins or ends at `t`. The history track does not report.
    void notifyRecordingDataPresentChange(const Ptime& t, bool present);
    /// The same, with why it ends.
    void notifyRecordingDataPresentChange(const Ptime& t, bool present, CoverageReason reason);
    /// Called by the store on the thread that erases, before the records from `first` up to but not including
    /// `last` are gone.
    void onEraseRangeSignal(unsigned int first, unsigned int last);

    /// How often records were erased, hidden or lost with the card: while it stays the same, so do indexes. Within the track's
    /// lock.
    std::uint64_t countErasings() const { return _erasings; }

    /// The header of a record. It passes over nothing.
    RecordHeader readHeader(unsigned int index) const;
    /// Of the newest record that was written or found; not-a-date-time if there is none.
    Ptime getLatestTimestamp() const;
    /// What was written last may be gone, or what was erased last may be back: records may have been lost with the card.
    /// Changes nothing where there are records and none can be read.
    void setLatestToNewestRecord();
    /// Returns when its writer and whoever reads it are not stuck.
    void awaitWriter() const;

private:
    /// The record at `low` is earlier than the wanted time, that at `high` is not.
    struct Bracket {
        std::int64_t wanted;
        unsigned int low;
        unsigned int high;
        std::int64_t lowTicks;
        std::int64_t highTicks;
    };
    struct Place {
        std::int64_t ticks;
        unsigned int index;
        unsigned int losses = 0; ///< `_losses` when it was read.
    };
    /// A record that can be read.
    struct Stamp {
        unsigned int index;
        Ptime time;
    };
    /// The times of the first and the last record that can be read, with what they hold for.
    struct Period {
        std::uint64_t erasings;
        unsigned int size;
        Ptime first;
        Ptime last;
    };

    void requireNothingBehind(const Ptime& t) const;
    unsigned int interpolateFirstIndexNotBefore(const Ptime& t, unsigned int size) const;
    unsigned int halveFirstIndexNotBefore(const Ptime& t, unsigned int size) const;
    std::optional<Bracket> findReadableNeighbours(const Ptime& t) const;
    std::optional<Stamp> findFirstReadable(unsigned int index) const;
    std::optional<Stamp> findLastReadable(unsigned int end) const;
    template <typename ToIndex>
    std::optional<Stamp> findReadable(unsigned int count, const ToIndex& toIndex) const;
    unsigned int firstOfItsTime(unsigned int index, const Ptime& time) const;
    Bracket findNeighbours(std::int64_t wanted, unsigned int size) const;
    Bracket beginNear(std::int64_t wanted, unsigned int size) const;
    Bracket bracketOf(std::int64_t wanted, unsigned int size, const std::optional<Place>& low,
                      const std::optional<Place>& high) const;
    void narrow(Bracket& bracket) const;
    bool lookAt(Bracket& bracket, double place) const;
    std::vector<Place>::iterator firstSeenNotBefore(std::int64_t ticks) const;
    void noteSeen(const Bracket& found) const;
    std::optional<Bracket> findSeenGap(const Ptime& t) const;
    void forgetSeen(unsigned int first, unsigned int last);
    bool adoptTrack(drenn::multi_track_recorder::Recording& recording);
    void reportErased(unsigned int first, unsigned int last) const;
    ITrackOwner& owner() const;
    void setLatestTimestamp(const Ptime& t);
    bool writeCheckedRecord(RecordHeader header, const Ptime& t, const void* data, std::size_t size);
    bool jumpedForward(const Ptime& previous, const Ptime& t);

    const track_type _trackType;
    ITrackOwner* const _owner;
    mutable std::mutex _latestMutex;
    Ptime _latestTimestamp; // Guarded by _latestMutex, which is held for nothing else.
    boost::shared_ptr<drenn::multi_track_recorder::Track> _track;
    boost::signals2::connection _eraseRangeConnection;
    // By time. Where searches begin to look: what they find is checked, since records are erased and lost. Guarded by the
    // track's lock.
    mutable std::vector<Place> _seen;
    mutable std::set<std::string> _passedOver; // What the log has been told. Guarded by the track's lock.
    unsigned int _hidden = 0;                  // So many of the oldest records. Guarded by the track's lock.
    std::uint64_t _erasings = 0;               // Likewise.
    unsigned int _losses = 0;              // How often records may have been lost with the card. Likewise.
    unsigned int _sizeAtErasing = 0;       // With what was just about to be erased. Likewise.
    mutable std::optional<Period> _period; // Found last. Likewise.
    std::atomic<std::uint64_t> _writtenRecords{0};
    std::atomic<std::uint64_t> _writtenBytes{0};
    std::atomic<std::uint64_t> _refusedRecords{0};
    mutable std::mutex _writeMutex;    // Taken before all locks of tracks.
    std::int64_t _lastWriteSteady = 0; // Guarded by _writeMutex.
};

} // namespace quarn::calvane
