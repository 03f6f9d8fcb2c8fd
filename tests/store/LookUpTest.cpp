// Searches by the first bytes of records: how much they read, and what they go by.

#include <gmock/gmock.h>

#include <atomic>

#include "drenn/multi_track_recorder/internal/SegmentReader.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/store/NumberedStore.h"

using namespace drenn::multi_track_recorder;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr unsigned int kBlock = 100; ///< Records.
constexpr unsigned int kBlocks = 8;
constexpr std::uint64_t kPause = 1'000'000;

/// Records come in steps of 10, and each block ends with a pause.
std::uint64_t NumberOf(unsigned int record) {
    return 10 * std::uint64_t{record} + record / kBlock * kPause;
}

std::uint64_t NumberIn(const Track::LeadingBytes& leading) {
    return ByteReader(leading.data() + 8, 8).U64();
}

void Fill(Store& store, const boost::shared_ptr<Track>& track) {
    for (unsigned int i = 0; i != kBlock * kBlocks; ++i) {
        Bytes record;
        ByteWriter writer(record);
        writer.U64(7);
        writer.U64(NumberOf(i));
        AppendText(*track, std::string(record.begin(), record.end()));
        if (i % kBlock == kBlock - 1) {
            store.Sync();
        }
    }
}

StoreOptions Options() {
    StoreOptions options = Workload::SmallStore();
    options.segmentBytes = 1 << 20U;
    return options;
}

/// One sealed segment.
DiskImage Filled() {
    SimFileSystem disk;
    {
        Store store(disk, Options());
        const auto recording = store.NewRecording();
        const auto track = recording->newTrack();
        recording->newTrack();
        Fill(store, track);
    }
    return disk.GetImage();
}

Track::KnownRecords FindNear(const Store& store, unsigned int index, std::uint64_t wanted) {
    return OnlyTrack(store)->findNear(
        index, [wanted](const Track::Leading& leading) { return NumberIn(leading.bytes) < wanted; });
}

void Change(SimFileSystem& disk, const std::string& sql) {
    const SqliteVfs vfs(disk);
    Database("/card/database/catalogue", vfs.Name()).Execute("PRAGMA locking_mode=EXCLUSIVE; " + sql);
}

std::uint64_t Count(SimFileSystem& disk, const std::string& from) {
    const SqliteVfs vfs(disk);
    Database catalogue("/card/database/catalogue", vfs.Name());
    catalogue.Execute("PRAGMA locking_mode=EXCLUSIVE");
    Statement row(catalogue, "SELECT count(*) FROM " + from);
    row.Step();
    return row.Number(0);
}

TEST(LookUp, ReadsNoMoreThanBothSidesOfAPause) {
    SimFileSystem disk(Filled());
    std::atomic<unsigned int> reads{0};
    disk.SetFault([&reads](const std::string& operation, const std::string& path) {
        reads += operation == "read" && path.find(".seg") != std::string::npos ? 1 : 0;
        return 0;
    });
    const Store store(disk, Options());
    const unsigned int last = OnlyTrack(store)->size() - 1;
    reads = 0;
    for (unsigned int behind = kBlock; behind <= last; behind += kBlock) {
        const auto found = FindNear(store, last, NumberOf(behind) - kPause / 2);
        ASSERT_TRUE(found.before && found.behind) << behind;
        EXPECT_EQ(found.before->index, behind - 1);
        EXPECT_EQ(found.behind->index, behind);
        EXPECT_EQ(NumberIn(found.before->leading), NumberOf(behind - 1));
        EXPECT_EQ(NumberIn(found.behind->leading), NumberOf(behind));
        EXPECT_LE(reads.exchange(0), 2U) << behind; // Neither header nor footer.
    }
    for (const unsigned int wanted : {1U, kBlock + 1, 3 * kBlock + 5, last}) {
        // However bad the guess is, it ends in the block with the wanted one.
        for (const unsigned int index : {0U, wanted, last}) {
            const auto found = FindNear(store, index, NumberOf(wanted));
            const unsigned int seen = found.behind ? found.behind->index : found.before->index;
            EXPECT_EQ(seen / kBlock, wanted / kBlock) << index;
            EXPECT_LE(reads.exchange(0), 2U) << wanted << " " << index;
        }
    }
}

TEST(LookUp, PassesOverWhatIsErased) {
    SimFileSystem disk(Filled());
    Store store(disk, Options());
    const auto track = OnlyTrack(store);
    track->eraseRange(3 * kBlock - 10, 3 * kBlock + 1);       // With the first one of a block.
    track->eraseRange(5 * kBlock - 11 - 50, 5 * kBlock - 11); // The end of a block.
    const unsigned int last = track->size() - 1;
    const auto end = FindNear(store, last, NumberOf(5 * kBlock) - kPause / 2);
    ASSERT_TRUE(end.before && end.behind);
    EXPECT_EQ(NumberIn(end.before->leading), NumberOf(5 * kBlock - 51));
    EXPECT_EQ(NumberIn(end.behind->leading), NumberOf(5 * kBlock));
    const auto beside = FindNear(store, last, NumberOf(6 * kBlock) - kPause / 2);
    ASSERT_TRUE(beside.before && beside.behind);
    EXPECT_EQ(beside.behind->index, 6 * kBlock - 61);
    EXPECT_EQ(NumberIn(beside.behind->leading), NumberOf(6 * kBlock));
    // What was not erased is found as without a directory: by going on from what is nearer each time.
    for (const unsigned int wanted : {3 * kBlock - 11, 3 * kBlock + 1, 3 * kBlock + 50}) {
        unsigned int low = 0;
        unsigned int high = last;
        while (low + 1 < high) {
            const auto found = FindNear(store, low + (high - low) / 2, NumberOf(wanted));
            const unsigned int before = found.before ? std::max(low, found.before->index) : low;
            const unsigned int behind = found.behind ? std::min(high, found.behind->index) : high;
            ASSERT_TRUE(before > low || behind < high) << wanted;
            low = before;
            high = behind;
        }
        EXPECT_EQ(NumberIn(track->getLeading(high).bytes), NumberOf(wanted));
    }
}

TEST(LookUp, DirectoriesAreForgottenWithTheirSegments) {
    SimFileSystem disk;
    StoreOptions options = Options();
    options.segmentBytes = 8192;
    {
        Store store(disk, options);
        const auto track = store.NewRecording()->newTrack();
        Fill(store, track);
        track->eraseRange(0, 4 * kBlock);
        store.Keep();
    }
    { const Store forgets(disk, options); }
    const std::uint64_t segments = Count(disk, "segments");
    EXPECT_GT(segments, 2U);
    EXPECT_LT(segments, std::uint64_t{kBlocks});
    EXPECT_EQ(Count(disk, "directories"), segments);
    EXPECT_EQ(Count(disk, "directories JOIN segments USING(lane, sequence)"), segments);
}

TEST(LookUp, ADirectoryOfAnotherSegmentIsNotBelieved) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    StoreOptions options = Options();
    options.segmentBytes = 8192;
    {
        Store store(disk, options);
        Fill(store, store.NewRecording()->newTrack());
    }
    const auto readAll = [&] {
        const Store store(disk, options);
        for (unsigned int i = 0; i != kBlock * kBlocks; ++i) {
            const auto found = FindNear(store, i, NumberOf(i));
            EXPECT_TRUE(found.behind && found.behind->index >= i) << i;
            EXPECT_EQ(NumberIn(OnlyTrack(store)->getLeading(i).bytes), NumberOf(i)) << i;
        }
    };
    readAll();
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
    Change(disk, "UPDATE directories SET blocks=(SELECT blocks FROM directories WHERE sequence=2)");
    readAll();
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase),
                Contains(AllOf(HasSubstr("Invariant 6"), HasSubstr("directory"))));
    Change(disk, "UPDATE directories SET blocks=substr(blocks, 1, 30)");
    readAll();
    Change(disk, "DROP TABLE directories"); // As an earlier version made it.
    readAll();
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
}

TEST(LookUp, DirectoriesThatAreLearnedTakeABoundedRoom) {
    SimFileSystem disk;
    SegmentCache cache(disk, StoreId{});
    EXPECT_TRUE(cache.BeginToLearn());
    EXPECT_FALSE(cache.BeginToLearn());
    const auto half = std::make_shared<SegmentDirectory>(
        StoredDirectory{1, std::vector<BlockRef>(79'000, BlockRef{1, 1, 1, 1})});
    EXPECT_TRUE(cache.Learn({2, 3}, half));
    EXPECT_TRUE(cache.Learn({2, 3}, half)); // It is there.
    EXPECT_TRUE(cache.Learn({2, 2}, half));
    EXPECT_FALSE(cache.Learn({2, 1}, half));
    cache.Drop({2, 3});
    EXPECT_TRUE(cache.Learn({2, 1}, half));
    cache.DropAll();
    EXPECT_TRUE(cache.BeginToLearn());
}

} // namespace
