#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "calvane/recording/RecordHeader.h"
#include "drenn/multi_track_recorder/Track.h"

namespace quarn::calvane {

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
