#include <algorithm>

#include "drenn/multi_track_recorder/internal/format/SegmentFormat.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr char kSegmentMagic[] = "CALVSEG1";
constexpr std::uint32_t kFormatVersion = 1;
constexpr std::uint32_t kBlockMagic = 0x4B4C4243;  // "CBLK"
constexpr std::uint32_t kFooterMagic = 0x52544643; // "CFTR"
constexpr std::uint32_t kSegmentHeaderFields = 52;
constexpr std::uint32_t kSaltOffset = 56;
constexpr std::uint32_t kBlockRefBytes = 20;

/// Adds the checksum of what was written from `start` on.
void Seal(Bytes& out, std::size_t start, std::uint64_t seed) {
    ByteWriter(out).U64(ChecksumOf(out.data() + start, out.size() - start, seed));
}

/// Whether the last 8 of `length` bytes are the checksum of those before.
bool IsSealed(const unsigned char* bytes, std::size_t length, std::uint64_t seed) {
    return ByteReader(bytes + length - 8, 8).U64() == ChecksumOf(bytes, length - 8, seed);
}

bool IsPossible(const TrackState& track) {
    return track.firstSerial <= kMostSerial && track.nextSerial <= kMostSerial &&
           track.infoFrom <= kMostSerial &&
           std::all_of(track.erased.begin(), track.erased.end(),
                       [](const SerialRange& range) { return range.IsPossible(); });
}

} // namespace

std::string ToText(const StoreId& id) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : id) {
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 15U];
    }
    return text;
}

std::uint64_t NumberOf(const LeadingBytes& leading) {
    return ByteReader(leading.data() + 8, 8).U64();
}

RecordsHint HintOf(const LeadingBytes& leading) {
    return {leading, NumberOf(leading), 0};
}

void RecordsHint::Add(const RecordsHint& next) {
    step = std::max({step, next.step, NumberOf(next.leading) - last}); // One that falls is a very large step.
    last = next.last;
}

Bytes Encode(const SegmentHeader& header) {
    Bytes out;
    ByteWriter writer(out);
    writer.Raw(kSegmentMagic, 8);
    writer.U32(kFormatVersion);
    writer.U32(header.lane);
    writer.U32(header.sequence);
    writer.Raw(header.store.data(), header.store.size());
    writer.U64(header.salt);
    Seal(out, 0, 0);
    out.resize(kSegmentHeaderBytes);
    return out;
}

std::optional<SegmentHeader> DecodeSegmentHeader(const unsigned char* bytes, std::size_t length) {
    if (length < kSegmentHeaderFields || std::memcmp(bytes, kSegmentMagic, 8) != 0 ||
        !IsSealed(bytes, kSegmentHeaderFields, 0)) {
        return std::nullopt;
    }
    ByteReader reader(bytes + 8, kSegmentHeaderFields - 8);
    if (reader.U32() != kFormatVersion) {
        return std::nullopt;
    }
    SegmentHeader header;
    header.lane = reader.U32();
    header.sequence = reader.U32();
    reader.Raw(header.store.data(), header.store.size());
    header.salt = reader.U64();
    return header;
}

std::optional<std::uint32_t> LaterVersionOf(const unsigned char* bytes, std::size_t length) {
    if (length < kSegmentHeaderFields || std::memcmp(bytes, kSegmentMagic, 8) != 0 ||
        !IsSealed(bytes, kSegmentHeaderFields, 0)) {
        return std::nullopt;
    }
    const std::uint32_t version = ByteReader(bytes + 8, 4).U32();
    return version > kFormatVersion ? std::optional<std::uint32_t>(version) : std::nullopt;
}

std::uint64_t SaltOfBlock(const unsigned char* bytes) {
    return ByteReader(bytes + kSaltOffset, 8).U64();
}

void Encode(const BlockHeader& header, std::uint64_t salt, Bytes& out) {
    const std::size_t start = out.size();
    ByteWriter writer(out);
    writer.U32(kBlockMagic);
    writer.U32(static_cast<std::uint32_t>(header.kind));
    writer.U32(header.offset);
    writer.U32(header.track);
    writer.U32(header.count);
    writer.U32(header.indexBytes);
    writer.U32(header.payloadBytes);
    writer.U32(header.infoTag);
    writer.U64(header.firstSerial);
    writer.U64(header.time);
    writer.U64(header.indexChecksum);
    writer.U64(salt);
    Seal(out, start, salt);
}

std::optional<BlockHeader> DecodeBlockHeader(const unsigned char* bytes, std::size_t length,
                                             std::uint32_t offset, std::uint64_t salt) {
    if (length < kBlockHeaderBytes || ByteReader(bytes, 4).U32() != kBlockMagic ||
        !IsSealed(bytes, kBlockHeaderBytes, salt)) {
        return std::nullopt;
    }
    ByteReader reader(bytes + 4, kBlockHeaderBytes - 4);
    BlockHeader header;
    const std::uint32_t kind = reader.U32();
    header.kind = static_cast<BlockKind>(kind);
    header.offset = reader.U32();
    header.track = reader.U32();
    header.count = reader.U32();
    header.indexBytes = reader.U32();
    header.payloadBytes = reader.U32();
    header.infoTag = reader.U32();
    header.firstSerial = reader.U64();
    header.time = reader.U64();
    header.indexChecksum = reader.U64();
    const bool ofRecords = header.kind == BlockKind::Records;
    const bool fits = ofRecords
                          ? header.count > 0 && std::uint64_t{header.count} * kEntryBytes == header.indexBytes
                          : header.count == 0 && header.payloadBytes == 0;
    if (reader.U64() != salt || header.offset != offset || kind < 1 || kind > 4 || !fits ||
        header.indexBytes > kLargestIndex || header.firstSerial > kMostSerial - header.count) {
        return std::nullopt;
    }
    return header;
}

std::optional<SerialRange> DecodeErased(const BlockHeader& header, const Bytes& body) {
    const SerialRange range{header.firstSerial, ByteReader(body.data(), body.size()).U64()};
    return range.IsPossible() ? std::optional(range) : std::nullopt;
}

void Encode(const RecordEntry& entry, std::uint64_t salt, std::uint64_t serial, Bytes& out) {
    const std::size_t start = out.size();
    ByteWriter writer(out);
    writer.Raw(entry.firstBytes.data(), entry.firstBytes.size());
    writer.U32(entry.payloadOffset);
    writer.U32(entry.payloadBytes);
    writer.U32(entry.firstBlobBytes);
    writer.U32(entry.blobs);
    writer.U64(entry.payloadChecksum);
    Seal(out, start, salt + serial);
}

std::optional<RecordEntry> DecodeEntry(const unsigned char* bytes, std::uint64_t salt, std::uint64_t serial) {
    if (!IsSealed(bytes, kEntryBytes, salt + serial)) {
        return std::nullopt;
    }
    ByteReader reader(bytes, kEntryBytes);
    RecordEntry entry;
    reader.Raw(entry.firstBytes.data(), entry.firstBytes.size());
    entry.payloadOffset = reader.U32();
    entry.payloadBytes = reader.U32();
    entry.firstBlobBytes = reader.U32();
    entry.blobs = reader.U32();
    entry.payloadChecksum = reader.U64();
    if (entry.payloadBytes > kLargestPayload) {
        return std::nullopt;
    }
    return entry;
}

std::uint64_t PayloadSeed(std::uint32_t track, std::uint64_t serial) {
    return (std::uint64_t{track} << 40U) + serial;
}

std::uint32_t InfoTag(std::uint64_t from, const std::string& text) {
    return static_cast<std::uint32_t>(ChecksumOf(text.data(), text.size(), from)) | 1U;
}

Bytes EncodeBody(const LaneState& state) {
    Bytes out;
    ByteWriter writer(out);
    writer.U32(state.recording);
    writer.U32(state.sparse ? 1 : 0);
    writer.Text(state.recordingInfo);
    writer.U32(static_cast<std::uint32_t>(state.tracks.size()));
    for (const TrackState& track : state.tracks) {
        writer.U32(track.id);
        writer.Text(track.formatName);
        writer.U32(track.formatVersion);
        writer.U64(track.firstSerial);
        writer.U64(track.nextSerial);
        writer.U64(track.infoFrom + (track.isInfoElsewhere ? kTextElsewhere : 0));
        writer.Text(track.info);
        writer.U32(static_cast<std::uint32_t>(track.erased.size()));
        for (const SerialRange& range : track.erased) {
            writer.U64(range.first);
            writer.U64(range.end);
        }
    }
    return out;
}

std::optional<LaneState> DecodeLaneState(const Bytes& body) {
    ByteReader reader(body.data(), body.size());
    LaneState state;
    state.recording = reader.U32();
    state.sparse = reader.U32() != 0;
    state.recordingInfo = reader.Text();
    const std::uint32_t tracks = reader.U32();
    for (std::uint32_t i = 0; i < tracks && reader.Good(); ++i) {
        TrackState track;
        track.id = reader.U32();
        track.formatName = reader.Text();
        track.formatVersion = reader.U32();
        track.firstSerial = reader.U64();
        track.nextSerial = reader.U64();
        track.infoFrom = reader.U64();
        track.isInfoElsewhere = track.infoFrom >= kTextElsewhere;
        track.infoFrom &= kTextElsewhere - 1;
        track.info = reader.Text();
        const std::uint32_t ranges = reader.U32();
        for (std::uint32_t k = 0; k < ranges && reader.Good(); ++k) {
            const std::uint64_t first = reader.U64();
            track.erased.push_back({first, reader.U64()});
        }
        if (!IsPossible(track)) {
            return std::nullopt;
        }
        state.tracks.push_back(std::move(track));
    }
    if (!reader.Good() || reader.Left() != 0) {
        return std::nullopt;
    }
    return state;
}

Bytes EncodeFooter(const std::vector<BlockRef>& directory, std::uint64_t salt) {
    Bytes out;
    ByteWriter writer(out);
    writer.U32(kFooterMagic);
    writer.U32(static_cast<std::uint32_t>(directory.size()));
    for (const BlockRef& block : directory) {
        writer.U32(block.track);
        writer.U32(block.count);
        writer.U64(block.firstSerial);
        writer.U32(block.offset);
    }
    Seal(out, 0, salt);
    return out;
}

std::optional<std::vector<BlockRef>> DecodeFooter(const Bytes& footer, std::uint64_t salt) {
    if (footer.size() < 16 || !IsSealed(footer.data(), footer.size(), salt)) {
        return std::nullopt;
    }
    ByteReader reader(footer.data(), footer.size() - 8);
    const std::uint32_t magic = reader.U32();
    const std::uint32_t count = reader.U32();
    if (magic != kFooterMagic || reader.Left() != std::uint64_t{count} * kBlockRefBytes) {
        return std::nullopt;
    }
    std::vector<BlockRef> directory(count);
    for (BlockRef& block : directory) {
        block.track = reader.U32();
        block.count = reader.U32();
        block.firstSerial = reader.U64();
        block.offset = reader.U32();
    }
    return directory;
}

namespace {

/// From one number to the next, either way, as one that is small if the step is.
std::uint64_t StepTo(std::uint64_t next, std::uint64_t before) {
    const std::uint64_t step = next - before;
    return step << 1U ^ (step >> 63U != 0 ? ~0ULL : 0);
}

std::uint64_t ByStep(std::uint64_t before, std::uint64_t step) {
    return before + (step >> 1U ^ ((step & 1U) != 0 ? ~0ULL : 0));
}

/// A block in a directory.
using Numbers = std::array<std::uint64_t, 6>;
constexpr std::size_t kCountOf = 1;
constexpr std::size_t kSerialOf = 2;

Numbers NumbersOf(const BlockRef& block) {
    ByteReader leading(block.leading.data(), block.leading.size());
    const std::uint64_t first = leading.U64();
    return {block.track, block.count, block.firstSerial, block.offset, first, leading.U64()};
}

BlockRef BlockOf(const Numbers& numbers) {
    const auto [track, count, firstSerial, offset, first, second] = numbers;
    BlockRef block{static_cast<std::uint32_t>(track), static_cast<std::uint32_t>(count), firstSerial,
                   static_cast<std::uint32_t>(offset)};
    const std::array<std::uint64_t, 2> leading{htole64(first), htole64(second)};
    std::memcpy(block.leading.data(), leading.data(), block.leading.size());
    return block;
}

/// What the next block would be if it were as regular as can be: numbers are kept as steps from there, which are small.
Numbers Foretell(const BlockRef& before) {
    Numbers numbers = NumbersOf(before);
    numbers[kSerialOf] += numbers[kCountOf];
    return numbers;
}

} // namespace

Bytes EncodeDirectory(const std::vector<BlockRef>& blocks, std::uint64_t salt) {
    Bytes out;
    ByteWriter writer(out);
    writer.U64(salt);
    writer.U32(static_cast<std::uint32_t>(blocks.size()));
    BlockRef before{};
    for (const BlockRef& block : blocks) {
        const Numbers foretold = Foretell(before);
        const Numbers numbers = NumbersOf(block);
        for (std::size_t i = 0; i != numbers.size(); ++i) {
            writer.Varint(StepTo(numbers[i], foretold[i]));
        }
        before = block;
    }
    Seal(out, 0, salt);
    return out;
}

std::optional<StoredDirectory> DecodeDirectory(const unsigned char* bytes, std::size_t length) {
    constexpr std::size_t kHeadBytes = 12;
    if (length < kHeadBytes + 8) {
        return std::nullopt;
    }
    StoredDirectory directory;
    ByteReader reader(bytes, length - 8);
    directory.salt = reader.U64();
    const std::uint32_t count = reader.U32();
    if (!IsSealed(bytes, length, directory.salt) || count > reader.Left()) {
        return std::nullopt;
    }
    directory.blocks.reserve(count);
    BlockRef before{};
    for (std::uint32_t i = 0; i != count; ++i) {
        Numbers numbers = Foretell(before);
        for (std::uint64_t& number : numbers) {
            number = ByStep(number, reader.Varint());
        }
        before = BlockOf(numbers);
        directory.blocks.push_back(before);
    }
    return reader.Good() && reader.Left() == 0 ? std::make_optional(std::move(directory)) : std::nullopt;
}

} // namespace drenn::multi_track_recorder
