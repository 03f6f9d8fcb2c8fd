#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "calvane/recording/RecordHeader.h"
#include "drenn/multi_track_recorder/Track.h"

namespace quarn::calvane {

// A record has two blobs: its header and its payload.

/// Throws what the store throws.
void appendRecord(drenn::multi_track_recorder::Track& track, const RecordHeader& header, const void* data,
                  std::size_t size);
/// `data` points into the record. False, and nothing set, if it has not two blobs; throws std::runtime_error "Parse error
/// in recorded data" if the first is no header.
bool splitRecord(const drenn::multi_track_recorder::BlobRecord& record, const unsigned char*& data,
                 unsigned int& size, RecordHeader& header);
/// Only the header, which costs less than a whole record. Throws std::runtime_error "Parse error in recorded data" unless
/// there is one; what the store throws.
RecordHeader readRecordHeader(const drenn::multi_track_recorder::Track& track, unsigned int index);
/// The same, of how a record begins.
RecordHeader recordHeaderOf(const drenn::multi_track_recorder::Track::Leading& leading);

/// A whole record of a track, read.
///
/// Errors: std::runtime_error "Parse error in recorded data" unless it has a header and a payload; what the store throws.
class StoredRecord {
public:
    /// Within the track's lock, whose read position it moves.
    StoredRecord(drenn::multi_track_recorder::Track& track, unsigned int index);
    StoredRecord(const StoredRecord&) = delete;
    StoredRecord& operator=(const StoredRecord&) = delete;

    boost::posix_time::ptime time() const { return timeFromTicks(_header.ticks); }
    unsigned int flags() const { return _header.flags; }
    std::int64_t compositionOffset() const { return _header.compositionOffset(); }
    const unsigned char* data() const { return _data; }
    unsigned int size() const { return _size; }

private:
    drenn::multi_track_recorder::BlobRecord _record;
    RecordHeader _header;
    const unsigned char* _data = nullptr; // Within _record.
    unsigned int _size = 0;
};

} // namespace quarn::calvane
