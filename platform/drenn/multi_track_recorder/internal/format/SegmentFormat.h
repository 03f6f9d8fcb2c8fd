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
/// No block has a larger index or body, and no record a larger payload. What says that it has is damaged, so lengths
/// that were read never size an allocation beyond this.
constexpr std::uint32_t kLargestIndex = 32U << 20U;
constexpr std::uint32_t kLargestPayload = (64U << 20U) + 4 * 65536;
/// No track has so many records. What says that it has is damaged, so serials that were read never overflow.
constexpr std::uint64_t kMostSerial = 1ULL << 48U;
/// From this serial on TrackState::infoFrom says that its text stands elsewhere; see EncodeBody.
constexpr std::uint64_t kTextElsewhere = 1ULL << 63U;

using StoreId = std::array<unsigned char, 16>;
/// The first bytes of a record's first blob; zeros behind a shorter one.
using LeadingBytes = std::array<unsigned char, kInlineBytes>;
/// Of records that rise, such as by time, the second half of their first bytes is the number by which they do.
std::uint64_t NumberOf(const LeadingBytes& leading);
constexpr std::uint64_t kUnknownStep = ~0ULL;

/// What is kept in memory and in the catalogue of records that follow one another, so that they need not be read.
struct RecordsHint {
    LeadingBytes leading{};            ///< Of the first one.
    std::uint64_t last = 0;            ///< The number of the last one.
    std::uint64_t step = kUnknownStep; ///< The largest from the number of one to that of the next.

    void Add(const RecordsHint& next);
};
/// The hint of a single record.
RecordsHint HintOf(const LeadingBytes& leading);
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
/// Nothing when it is not one, is damaged, or is of another version.
std::optional<SegmentHeader> DecodeSegmentHeader(const unsigned char* bytes, std::size_t length);
/// The version of a segment that a later program wrote: what comes before the lane, and the checksum, keep their
/// places in all versions. Nothing for others.
std::optional<std::uint32_t> LaterVersionOf(const unsigned char* bytes, std::size_t length);

struct SerialRange {
    std::uint64_t first;
    std::uint64_t end; ///< Not included.
    bool IsPossible() const { return first < end && end <= kMostSerial; }
};

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
    /// Of records: InfoTag of the text that holds for them, so that a text that is lost is missed; 0 when there is
    /// none, or nobody noted it.
    std::uint32_t infoTag = 0;

    std::uint64_t PayloadOffset() const { return std::uint64_t{offset} + kBlockHeaderBytes + indexBytes; }
    std::uint64_t End() const { return PayloadOffset() + payloadBytes; }
};
void Encode(const BlockHeader& header, std::uint64_t salt, Bytes& out);
/// The salt that a block's header says it has; for a segment whose own header is damaged.
std::uint64_t SaltOfBlock(const unsigned char* bytes);
/// Nothing unless it is a whole header that belongs to `offset` of the segment with this salt.
std::optional<BlockHeader> DecodeBlockHeader(const unsigned char* bytes, std::size_t length,
                                             std::uint32_t offset, std::uint64_t salt);

/// What a block of the kind Erased marks; nothing unless it is possible.
std::optional<SerialRange> DecodeErased(const BlockHeader& header, const Bytes& body);

/// What the index of a block says of a record.
struct RecordEntry {
    LeadingBytes firstBytes{};
    std::uint32_t payloadOffset = 0; ///< From the block's first payload on.
    std::uint32_t payloadBytes = 0;  ///< A length of 32 bits for each blob, then the blobs.
    std::uint32_t firstBlobBytes = 0;
    std::uint32_t blobs = 0;
    std::uint64_t payloadChecksum = 0;
};
void Encode(const RecordEntry& entry, std::uint64_t salt, std::uint64_t serial, Bytes& out);
std::optional<RecordEntry> DecodeEntry(const unsigned char* bytes, std::uint64_t salt, std::uint64_t serial);

/// Payloads are summed up before it is known which segment they go to.
std::uint64_t PayloadSeed(std::uint32_t track, std::uint64_t serial);

/// Tells an info text that holds from a serial on; never 0.
std::uint32_t InfoTag(std::uint64_t from, const std::string& text);

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
    bool isInfoElsewhere = false; ///< Left out for its length: an info block and the catalogue have it.
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
    LeadingBytes leading{}; ///< Of its first record; not in a footer.
};
Bytes EncodeFooter(const std::vector<BlockRef>& directory, std::uint64_t salt);
std::optional<std::vector<BlockRef>> DecodeFooter(const Bytes& footer, std::uint64_t salt);

/// The same with the first bytes of the blocks, in about a dozen bytes for each, as the catalogue keeps it.
Bytes EncodeDirectory(const std::vector<BlockRef>& blocks, std::uint64_t salt);
struct StoredDirectory {
    std::uint64_t salt = 0;
    std::vector<BlockRef> blocks;
};
std::optional<StoredDirectory> DecodeDirectory(const unsigned char* bytes, std::size_t length);

} // namespace drenn::multi_track_recorder
