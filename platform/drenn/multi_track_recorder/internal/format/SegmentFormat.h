#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/internal/format/ByteOrder.h"

namespace drenn::multi_track_recorder {

// The bytes of a segment, as docs/reference/segment-format.md has them. Everything is encoded field by field.

constexpr std::uint32_t kSegmentHeaderBytes = 4096;
constexpr std::uint32_t kBlockHeaderBytes = 72;
constexpr std::uint32_t kEntryBytes = 48;
constexpr std::uint32_t kInlineBytes = 16;

using StoreId = std::array<unsigned char, 16>;
std::string ToText(const StoreId& id);

/// XXH3, 64 bits.
std::uint64_t ChecksumOf(const void* bytes, std::size_t length, std::uint64_t seed);

struct SegmentHeader {
    std::uint32_t lane = 0;
    std::uint32_t sequence = 0;
    StoreId store{};
    std::uint64_t salt =
        0; ///< Random: blocks of an earlier file in the same place are not taken for this one's.
};
Bytes Encode(const SegmentHeader& header);
/// Nothing when it is not one, or is damaged.
std::optional<SegmentHeader> DecodeSegmentHeader(const unsigned char* bytes, std::size_t length);

enum class BlockKind : std::uint32_t {
    Records = 1,
    Info = 2,   ///< The text that holds for the records from firstSerial on.
    Erased = 3, ///< Marks the records from firstSerial up to a serial in the body as erased.
    State = 4   ///< What there is of the recording at this point of the lane.
};

/// A block: this header, then the index, then the payloads.
struct BlockHeader {
    BlockKind kind = BlockKind::Records;
    std::uint32_t offset = 0; ///< Of the block in its segment.
    std::uint32_t track = 0;
    std::uint32_t count = 0; ///< Records.
    std::uint64_t firstSerial = 0;
    std::uint64_t time = 0; ///< Of writing, microseconds since 1970; never falls from block to block.
    std::uint32_t indexBytes = 0;
    std::uint32_t payloadBytes = 0;
    std::uint64_t indexChecksum = 0;

    std::uint64_t PayloadOffset() const { return std::uint64_t{offset} + kBlockHeaderBytes + indexBytes; }
    std::uint64_t End() const { return PayloadOffset() + payloadBytes; }
};
void Encode(const BlockHeader& header, std::uint64_t salt, Bytes& out);
/// Nothing unless it is a whole header that belongs to `offset` of the segment with this salt.
std::optional<BlockHeader> DecodeBlockHeader(const unsigned char* bytes, std::size_t length,
                                             std::uint32_t offset, std::uint64_t salt);

/// What the index of a block says of a record.
struct RecordEntry {
    std::array<unsigned char, kInlineBytes> firstBytes{}; ///< Of the first blob; the rest is 0.
    std::uint32_t payloadOffset = 0;                      ///< From the block's first payload on.
    std::uint32_t payloadBytes = 0; ///< A length of 32 bits for each blob, then the blobs.
    std::uint32_t firstBlobBytes = 0;
    std::uint32_t blobs = 0;
    std::uint64_t payloadChecksum = 0;
};
void Encode(const RecordEntry& entry, std::uint64_t salt, std::uint64_t serial, Bytes& out);
std::optional<RecordEntry> DecodeEntry(const unsigned char* bytes, std::uint64_t salt, std::uint64_t serial);

/// Payloads are summed up before it is known which segment they go to.
std::uint64_t PayloadSeed(std::uint32_t track, std::uint64_t serial);

struct SerialRange {
    std::uint64_t first;
    std::uint64_t end; ///< Not included.
};

/// A track in a State block.
struct TrackState {
    std::uint32_t id = 0;
    std::string formatName;
    std::uint32_t formatVersion = 0;
    std::uint64_t firstSerial = 0; ///< Everything before is erased.
    std::uint64_t nextSerial = 0;
    std::uint64_t infoFrom = 0; ///< The text holds for the records from here on.
    std::string info;
    std::vector<SerialRange> erased;
};

struct LaneState {
    std::uint32_t recording = 0;
    bool sparse = false;
    std::string recordingInfo;
    std::vector<TrackState> tracks;
};
Bytes EncodeBody(const LaneState& state);
std::optional<LaneState> DecodeLaneState(const Bytes& body);

/// A block of records in the directory of its segment.
struct BlockRef {
    std::uint32_t track;
    std::uint32_t count;
    std::uint64_t firstSerial;
    std::uint32_t offset;
};
Bytes EncodeFooter(const std::vector<BlockRef>& directory, std::uint64_t salt);
std::optional<std::vector<BlockRef>> DecodeFooter(const Bytes& footer, std::uint64_t salt);

} // namespace drenn::multi_track_recorder
