#define XXH_INLINE_ALL
#include <gtest/gtest.h>
#include <xxhash.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "drenn/multi_track_recorder/internal/PendingBlock.h"
#include "drenn/multi_track_recorder/internal/SegmentReader.h"
#include "support/TempFolder.h"

using namespace drenn::multi_track_recorder;

namespace {

constexpr std::uint64_t kSalt = 0x0123456789ABCDEF;
constexpr std::uint64_t kTime = 1700000000000000;
const StoreId kStore{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

void Add(const PendingBlock& block, Bytes& segment) {
    block.Encode(static_cast<std::uint32_t>(segment.size()), kSalt, kTime, segment);
    for (const PendingBlock::Span& span : block.Payloads()) {
        ByteWriter(segment).Raw(span.bytes, span.length);
    }
}

LaneState State() {
    LaneState state;
    state.recording = 1;
    state.recordingInfo = "M,1";
    state.tracks.push_back({3, "0", 1, 8, 10, 9, "info", {{9, 10}}, false});
    return state;
}

/// All kinds of blocks; `length`: of the valid part.
Bytes MakeSegment(std::uint64_t& length) {
    Bytes segment = Encode(SegmentHeader{2, 7, kStore, kSalt});
    Add(PendingBlock(BlockKind::State, 0, 0, EncodeBody(State())), segment);
    PendingBlock records(3, 10);
    BlobRecord record;
    record.add({"sixteen bytes...", 16});
    record.add({"payload", 7});
    records.Append(record);
    records.Append(BlobRecord());
    const auto offset = static_cast<std::uint32_t>(segment.size());
    Add(records, segment);
    Add(PendingBlock(BlockKind::Info, 3, 12, {'n', 'e', 'w'}), segment);
    Add(PendingBlock(BlockKind::Erased, 3, 11, {12, 0, 0, 0, 0, 0, 0, 0}), segment);
    length = segment.size();
    const Bytes footer = EncodeFooter({{3, 2, 10, offset}}, kSalt);
    segment.insert(segment.end(), footer.begin(), footer.end());
    return segment;
}

TEST(SegmentFormat, DirectoriesAreTheSameAgainAndNothingElseIsOne) {
    LeadingBytes leading{};
    leading.fill(0xFF);
    const std::vector<BlockRef> blocks{{1, 300, 0, 4168},
                                       {1, 300, 300, 92542, leading},
                                       {1, 1, kMostSerial - 1, 0xFFFFFFFF, {1, 2, 3}},
                                       {0xFFFFFFFF, 0xFFFFFFFF, 5, 0, leading},
                                       {7, 0, 0, 1}};
    const Bytes bytes = EncodeDirectory(blocks, kSalt);
    const auto again = DecodeDirectory(bytes.data(), bytes.size());
    ASSERT_TRUE(again && again->blocks.size() == blocks.size());
    EXPECT_EQ(again->salt, kSalt);
    for (std::size_t i = 0; i != blocks.size(); ++i) {
        const BlockRef& a = again->blocks[i];
        const BlockRef& b = blocks[i];
        EXPECT_EQ(std::tie(a.track, a.count, a.firstSerial, a.offset, a.leading),
                  std::tie(b.track, b.count, b.firstSerial, b.offset, b.leading));
    }
    std::vector<BlockRef> regular;
    for (std::uint32_t i = 0; i != 1000; ++i) {
        regular.push_back({1, 300, std::uint64_t{300} * i, 4168 + 88216 * i});
        std::memcpy(&regular.back().leading[8], &i, sizeof i);
    }
    EXPECT_LT(EncodeDirectory(regular, kSalt).size(), regular.size() * 12);
    for (std::size_t length = 0; length != bytes.size(); ++length) {
        EXPECT_FALSE(DecodeDirectory(bytes.data(), length)) << length;
        Bytes flipped = bytes;
        flipped[length] ^= 4;
        EXPECT_FALSE(DecodeDirectory(flipped.data(), flipped.size())) << length;
    }
}

// Whatever instructions the processor has for it: cards go from device to device.
TEST(SegmentFormat, ChecksumsAreTheSameOnAllProcessors) {
    Bytes bytes(5000);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(i * 131 + i / 256);
    }
    for (std::size_t length = 0; length < bytes.size(); length += 1 + length / 16) {
        for (const std::size_t from : {0U, 1U, 6U}) {
            const std::uint64_t seed = kSalt * (length % 3);
            const unsigned char* const begin = bytes.data() + from;
            const std::size_t left = std::min(length, bytes.size() - from);
            EXPECT_EQ(ChecksumOf(begin, left, seed), XXH3_64bits_withSeed(begin, left, seed)) << left;
        }
    }
}

// What is written is what docs/reference/segment-format.md says, and stays readable.
TEST(SegmentFormat, IsThatOfTheGoldenFile) {
    std::uint64_t length = 0;
    const Bytes made = MakeSegment(length);
    const std::string path = std::string(CALVANE_SOURCE_DIR) + "/tests/store/golden.seg";
    std::ostringstream golden;
    golden << std::ifstream(path, std::ios::binary).rdbuf();
    EXPECT_TRUE(golden.str() == std::string(made.begin(), made.end())) << path;

    Segment segment({2, 7}, path);
    segment.length = length;
    SegmentCache cache(PosixFileSystem(), kStore);
    BlobRecord record;
    cache.Get(segment)->Read(3, 10, record);
    ASSERT_EQ(record.blobs().size(), 2U);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(record.blobs()[1].data()), 7), "payload");
    EXPECT_THROW(cache.Get(segment)->Read(3, 12, record), std::runtime_error);
}

// Not even with a checksum that is right.
TEST(SegmentFormat, RefusesWhatCannotBe) {
    BlockHeader header;
    header.kind = BlockKind::Info;
    header.offset = 4096;
    Bytes good;
    Encode(header, kSalt, good);
    EXPECT_TRUE(DecodeBlockHeader(good.data(), good.size(), 4096, kSalt));
    EXPECT_FALSE(DecodeBlockHeader(good.data(), good.size(), 8192, kSalt)); // A copy at another place.
    header.indexBytes = kLargestIndex + 1;
    Bytes bad;
    Encode(header, kSalt, bad);
    EXPECT_FALSE(DecodeBlockHeader(bad.data(), bad.size(), 4096, kSalt));
    header.indexBytes = 0;
    header.firstSerial = kMostSerial + 1;
    Bytes far;
    Encode(header, kSalt, far);
    EXPECT_FALSE(DecodeBlockHeader(far.data(), far.size(), 4096, kSalt));
    for (const auto& [first, end, isPossible] : {std::tuple{3U, 4U, true}, {3U, 3U, false}}) {
        header.firstSerial = first;
        Bytes body;
        ByteWriter(body).U64(end);
        EXPECT_EQ(DecodeErased(header, body).has_value(), isPossible);
        LaneState state;
        state.tracks.resize(1);
        state.tracks[0].erased = {{first, end}};
        EXPECT_EQ(DecodeLaneState(EncodeBody(state)).has_value(), isPossible);
        state.tracks[0].nextSerial = kMostSerial + 1;
        EXPECT_FALSE(DecodeLaneState(EncodeBody(state)));
    }
    RecordEntry entry{};
    entry.payloadBytes = kLargestPayload + 1;
    Bytes entryBytes;
    Encode(entry, kSalt, 7, entryBytes);
    EXPECT_FALSE(DecodeEntry(entryBytes.data(), kSalt, 7));
}

// Where 32 bits of a system end.
TEST(SegmentFormat, PlacesBehind4GiBAreThemselves) {
    constexpr std::uint64_t k4GiB = std::uint64_t{1} << 32U;
    const TempFolder folder;
    const std::string path = folder.Path("sparse");
    const std::shared_ptr<IFile> file = PosixFileSystem().Open(path, OpenMode::CreateNew);
    Bytes bytes;
    PendingBlock records(3, 10);
    BlobRecord record;
    record.add({"a record", 8});
    records.Append(record);
    const std::uint64_t offset = k4GiB - kBlockHeaderBytes - kEntryBytes; // The payload is the first behind.
    records.Encode(static_cast<std::uint32_t>(offset), kSalt, kTime, bytes);
    ByteWriter(bytes).Raw(records.Payloads()[0].bytes, records.Payloads()[0].length);
    file->Write(offset, bytes.data(), bytes.size());
    file->WriteOut();
    file->Sync();
    EXPECT_EQ(file->Size(), k4GiB + 12);
    unsigned char first = 1;
    EXPECT_EQ(file->Read(0, &first, 1), 1U);
    EXPECT_EQ(first, 0); // It did not come round.
    const auto directory = std::make_shared<SegmentDirectory>(kSalt, false);
    directory->Add({3, 1, 10, static_cast<std::uint32_t>(offset)});
    const SegmentReader reader(file, path, directory);
    BlobRecord read;
    reader.Read(3, 10, read);
    ASSERT_EQ(read.blobs().size(), 1U);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(read.blobs()[0].data()), 8), "a record");
    const std::string large(std::size_t{200} * 1024, 'x'); // The way of large writes.
    file->Write(5 * k4GiB / 4, large.data(), large.size());
    file->Truncate(5 * k4GiB / 4 + 1);
    EXPECT_EQ(file->Size(), 5 * k4GiB / 4 + 1);
    EXPECT_EQ(file->Read(5 * k4GiB / 4, &first, 1), 1U);
    EXPECT_EQ(first, 'x');
}

} // namespace
