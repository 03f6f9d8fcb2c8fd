#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
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
    std::uint32_t length = 0;  ///< Of the payload.
    std::vector<char> payload; ///< With kInfo: the info text of the records from here on.
};

/// How many records could not be read, from the payload of a frame kEnd.
std::uint64_t UnreadableOf(const unsigned char* payload, std::size_t length);

/// Thrown when the user has had enough.
class Interrupted : public std::runtime_error {
public:
    Interrupted() : std::runtime_error("Interrupted") {}
};

/// Reads frames from a descriptor, which it closes.
///
/// Errors: std::runtime_error when the stream ends within a frame or without its last one, is not one, or nothing comes
///         for a minute; Interrupted.
class RecordReader {
public:
    /// `isInterrupted` is asked several times a second as long as nothing comes.
    explicit RecordReader(int descriptor, std::function<bool()> isInterrupted = nullptr);
    ~RecordReader();
    RecordReader(const RecordReader&) = delete;
    RecordReader& operator=(const RecordReader&) = delete;

    /// The last frame is kEnd or kFailed.
    Frame Read();
    /// The same in two steps: a frame without its payload, and then the payload into `length` bytes.
    Frame ReadHead();
    void ReadPayload(void* bytes, std::size_t length) { ReadFully(bytes, length); }

private:
    void ReadFully(void* bytes, std::size_t size) const;

    void Wait(std::chrono::steady_clock::time_point since) const;

    const int descriptor_;
    const std::function<bool()> isInterrupted_;
};

} // namespace calvane_recording
