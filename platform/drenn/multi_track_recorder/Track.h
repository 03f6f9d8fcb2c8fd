#pragma once

#include <array>
#include <boost/signals2/connection.hpp>
#include <boost/signals2/signal.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "drenn/Export.h"
#include "drenn/multi_track_recorder/BlobRecord.h"
#include "drenn/multi_track_recorder/DataFormatVersion.h"

namespace drenn::multi_track_recorder {

class TrackImpl;

/// A sequence of records that grows at its end. Records are addressed by index: 0 is the oldest that is still
/// there, and when records are erased, those behind them close up.
///
/// Threads: any. Every operation holds the track's lock, which is re-entrant: a caller that needs several
///          operations to see the same records, or its own read position, holds it around them; who gives it back
///          lets through who waits, even if it takes it again at once. Reads wait neither for other tracks nor for the
///          device's syncs.
/// Errors:  std::out_of_range for an index at or past the end. std::runtime_error, which names the file and
///          the reason, for bytes that cannot be read or that fail their checksum, for a record or a text
///          that is too large, and for every change while the store is read-only or its card is away.
/// Lifetime: works as long as its recorder. Afterwards, and when it has been erased from its recording, every
///          operation throws std::runtime_error.
class DRENN_API Track {
public:
    using EraseRangeSignal = boost::signals2::signal<void(unsigned int first, unsigned int last)>;

    static constexpr std::uint32_t kMaxRecordBytes = 64U * 1024 * 1024; ///< All blobs of a record together.
    static constexpr std::uint32_t kMaxRecordBlobs = 65536;
    static constexpr std::uint32_t kMaxInfoBytes = 1024 * 1024;

    explicit Track(std::shared_ptr<TrackImpl> impl); // For the recording.
    ~Track();
    Track(const Track&) = delete;
    Track& operator=(const Track&) = delete;

    /// Unique in its store, and never used again.
    unsigned int getId() const;
    DataFormatVersion getFormat() const;
    /// Durable when it returns.
    void setFormat(const DataFormatVersion& format);

    /// The number of records.
    unsigned int size() const;

    /// Sets the read position, an index. Setting it past the end is allowed; reading there is not.
    void seekg(unsigned int index);
    unsigned int tellg() const;
    /// Reads the record at the read position, as many of its blobs as the record's limit says, and moves the
    /// position one on. When it throws, the position stays and the record is empty.
    Track& operator>>(BlobRecord& record);
    /// Appends a record. It can be read at once; a killed process loses at most the last 250 ms of what was
    /// appended and a power cut the last second: all of it, or what the device had not written yet, while order and
    /// content stay. See MultiTrackRecorder::flush.
    Track& operator<<(const BlobRecord& record);

    /// The first and the last index of the records around the read position that the same call of setInfo holds
    /// for; setting the text that holds already changes nothing. Throws std::out_of_range when the position is
    /// at or past the end.
    std::pair<unsigned int, unsigned int> getInfoRange() const;
    /// The info text that holds for the record at the read position; empty if none was set before that record
    /// was appended. Only std::string.
    template <typename T>
    void getInfo(T& info) const;
    /// The text holds for all records appended from now on, until it is set again. As durable as a record.
    template <typename T>
    void setInfo(const T& info);

    /// Erases the records from `first` up to but not including `last`, which is cut to the size. First the
    /// erase-range signal is raised with the same two numbers, on this thread and with the lock held, while
    /// the records can still be read. Durable when it returns. An empty range does nothing.
    void eraseRange(unsigned int first, unsigned int last);
    /// The ring that keeps the card from filling up raises it too, on its own thread. What a slot throws is
    /// logged and otherwise ignored.
    boost::signals2::connection connectToEraseRangeSignal(const EraseRangeSignal::slot_type& slot);

    /// The first bytes of a record's first blob; zeros behind a shorter one.
    using LeadingBytes = std::array<unsigned char, 16>;
    /// How a record begins.
    struct Leading {
        LeadingBytes bytes;
        std::uint32_t firstBlobBytes; ///< How long the first blob is; 0 without one.
    };
    /// Of the record at `index`. It costs less than reading even that blob alone, and the read position stays.
    Leading getLeading(unsigned int index) const;
    /// A record whose first bytes are in memory.
    struct KnownRecord {
        unsigned int index;
        LeadingBytes leading;
    };
    /// The last known record for which what is searched for lies behind it, and the first one for which it does not;
    /// nothing where there is none.
    struct KnownRecords {
        std::optional<KnownRecord> before;
        std::optional<KnownRecord> behind;
        /// From one to the other no record is further from the next one than this, in terms of the number that bytes 8 to
        /// 15 of each are, lowest first; more than half the range of numbers where one falls. Nothing where that is not
        /// known; only of findKnown.
        std::optional<std::uint64_t> step;
    };
    /// Where to begin a search through records that are ordered by their first bytes, without reading any: the first
    /// record of each segment is known, unless it was erased. `isBefore` is called with locks held, and must not call
    /// the store.
    KnownRecords findKnown(const std::function<bool(const LeadingBytes&)>& isBefore) const;
    /// Goes on with such a search: the same, of the records that are read together with that at `index`, which costs hardly
    /// more than reading its first bytes alone; or with one that is nearer to what is searched for, where the store knows of
    /// such a one in the same segment. If both are there, they are next to each other. `isBefore` is called with locks
    /// held, and must not call the store; what it throws is passed on. Throws std::out_of_range for an index at or past the end,
    /// and what getLeading throws where one of those that are compared is damaged.
    KnownRecords findNear(unsigned int index, const std::function<bool(const Leading&)>& isBefore) const;

    void lock() const;
    void unlock() const;

private:
    const std::shared_ptr<TrackImpl> impl_;
};

template <>
void Track::getInfo<std::string>(std::string& info) const;
template <>
void Track::setInfo<std::string>(const std::string& info);

} // namespace drenn::multi_track_recorder
