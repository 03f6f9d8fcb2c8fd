#pragma once

#include <memory>
#include <vector>

#include "drenn/multi_track_recorder/BlobRecord.h"
#include "drenn/multi_track_recorder/internal/format/SegmentFormat.h"

namespace drenn::multi_track_recorder {

/// Fills `record` with as many blobs as its limit says from a payload that was checked against its checksum.
/// Throws std::runtime_error when the lengths in it do not add up.
void FillRecord(const unsigned char* payload, std::size_t bytes, std::uint32_t blobs, BlobRecord& record);

/// How many blobs a read with this limit fills.
std::uint32_t BlobsToRead(std::uint32_t blobs, int limit);

/// A block in memory: filled, written, and kept until it is durable.
///
/// Threads: one fills it; from then on it does not change and any may read.
class PendingBlock {
public:
    struct Span {
        const unsigned char* bytes;
        std::size_t length;
    };

    /// A block of records from `firstSerial` on; `infoTag` as in BlockHeader.
    PendingBlock(std::uint32_t track, std::uint64_t firstSerial, std::uint32_t infoTag = 0);
    /// One of the other kinds.
    PendingBlock(BlockKind kind, std::uint32_t track, std::uint64_t firstSerial, Bytes body);
    ~PendingBlock();
    PendingBlock(const PendingBlock&) = delete;
    PendingBlock& operator=(const PendingBlock&) = delete;

    /// Copies the blobs: the one copy on the way to the device.
    void Append(const BlobRecord& record);
    /// Of a record in this block.
    const RecordEntry& Entry(std::uint64_t serial) const {
        return records_[static_cast<std::size_t>(serial - firstSerial_)].entry;
    }
    void Read(std::uint64_t serial, BlobRecord& record) const;

    BlockKind Kind() const { return kind_; }
    std::uint32_t Track() const { return track_; }
    std::uint64_t FirstSerial() const { return firstSerial_; }
    std::uint64_t EndSerial() const { return firstSerial_ + records_.size(); }
    std::uint32_t Count() const { return static_cast<std::uint32_t>(records_.size()); }
    const Bytes& Body() const { return body_; }
    /// Of a block of records, with one.
    const RecordsHint& Hint() const { return hint_; }
    /// As they are in a segment.
    std::uint64_t Length() const;

    /// The header and the index for this place of a segment; the payloads follow.
    void Encode(std::uint32_t offset, std::uint64_t salt, std::uint64_t time, Bytes& out) const;
    std::vector<Span> Payloads() const;

    bool isOpen = true;     ///< More records may come. Guarded by the track's content.
    bool isWritten = false; ///< Guarded by the lane.

private:
    struct Record {
        RecordEntry entry;
        const unsigned char* payload;
    };
    struct Chunk {
        std::unique_ptr<unsigned char[]> bytes;
        std::size_t used;
        std::size_t room;
    };
    unsigned char* Take(std::size_t bytes);

    const BlockKind kind_;
    const std::uint32_t track_;
    const std::uint64_t firstSerial_;
    const std::uint32_t infoTag_ = 0;
    std::vector<Record> records_;
    RecordsHint hint_;
    std::vector<Chunk> chunks_;
    std::uint64_t payloadBytes_ = 0;
    const Bytes body_;
};

} // namespace drenn::multi_track_recorder
