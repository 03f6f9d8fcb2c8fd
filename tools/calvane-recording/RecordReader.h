#pragma once

#include <cstdint>
#include <vector>

#include "TimeText.h"

namespace calvane_recording {

/// One piece of what openRecords hands over; docs/reference/bus-interfaces.md describes it.
struct Frame {
    enum Kind : std::uint8_t { kRecord = 0, kErased = 1, kEnd = 2, kFailed = 3, kInfo = 4 };

    Kind kind = kEnd;
    unsigned int flags = 0;
    std::uint64_t unreadable = 0; ///< With kEnd: how many records could not be read.
    Time time = 0;
    std::int64_t compositionOffset =
        0; ///< Of a record: from its time, the decode time, to when it is to be shown, in us.
    std::vector<char> payload; ///< With kInfo: the info text of the records from here on.
};

/// Reads frames from a descriptor, which it closes.
///
/// Errors: std::runtime_error when the stream ends within a frame or without its last one, or is not one.
class RecordReader {
public:
    explicit RecordReader(int descriptor) : descriptor_(descriptor) {}
    ~RecordReader();
    RecordReader(const RecordReader&) = delete;
    RecordReader& operator=(const RecordReader&) = delete;

    /// The last frame is kEnd or kFailed.
    Frame Read();

private:
    void ReadFully(void* bytes, std::size_t size) const;

    const int descriptor_;
};

} // namespace calvane_recording
