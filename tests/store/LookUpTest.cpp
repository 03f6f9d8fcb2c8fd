// Searches by the first bytes of records: how much they read, and what they go by.

#include <gmock/gmock.h>

#include <atomic>

#include "drenn/multi_track_recorder/internal/SegmentReader.h"
#include "drenn/multi_track_recorder/internal/io/DirectoryFile.h"
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

constexpr char kDirectories[] = "/card/database/directories";

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

// The file may be lost, torn, damaged or another's at any moment: what is found is the same.
TEST(LookUp, NothingDependsOnDirectories) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    StoreOptions options = Options();
    options.segmentBytes = 8192;
    {
        Store store(disk, options);
        Fill(store, store.NewRecording()->newTrack());
    }
    const DiskImage good = disk.GetImage();
    const auto check = [&](SimFileSystem& changed) {
        {
            const Store store(changed, options);
            for (unsigned int i = 0; i != kBlock * kBlocks; ++i) {
                const auto found = FindNear(store, i, NumberOf(i));
                EXPECT_TRUE(found.behind && found.behind->index >= i) << i;
                EXPECT_EQ(NumberIn(OnlyTrack(store)->getLeading(i).bytes), NumberOf(i)) << i;
            }
        }
        EXPECT_THAT(VerifyStore(changed, kStorage, kDatabase), IsEmpty());
    };
    check(disk);
    const Bytes whole = *good.files.at(good.names.at(kDirectories));
    ASSERT_GT(whole.size(), 300U);
    const auto put = [&](const Bytes& bytes) {
        SimFileSystem changed(good);
        changed.Remove(kDirectories);
        if (!bytes.empty()) {
            changed.Open(kDirectories, OpenMode::CreateNew)->Write(0, bytes.data(), bytes.size());
        }
        check(changed);
    };
    put({}); // As an earlier version leaves it.
    for (const std::size_t place : {0U, 5U, 9U, 13U, 20U, 60U}) {
        Bytes bad = whole;
        bad[place] ^= 1;
        put(bad);
        put(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(place + 1)));
    }
    SimFileSystem mixed(good);
    std::vector<StoredDirectory> directories;
    DirectoryFile file(mixed, kDirectories);
    file.ForEach([&](SegmentKey, const StoredDirectory& stored) { directories.push_back(stored); });
    ASSERT_GT(directories.size(), 3U);
    for (std::uint32_t sequence = 1; sequence <= directories.size(); ++sequence) {
        file.Append({2, sequence}, EncodeDirectory(directories[1].blocks, directories[0].salt));
    }
    {
        SimFileSystem others(mixed.GetImage());
        const Store store(others, options);
        EXPECT_EQ(NumberIn(OnlyTrack(store)->getLeading(5).bytes), NumberOf(5));
        for (unsigned int i = 0; i < kBlock * (kBlocks - 1); i += 50) { // The newest has the salt of its own.
            EXPECT_TRUE(FindNear(store, i, NumberOf(i)).behind) << i;
        }
    }
    SimFileSystem bare(mixed.GetImage());
    {
        const SqliteVfs vfs(bare);
        Database("/card/database/catalogue", vfs.Name())
            .Execute("PRAGMA locking_mode=EXCLUSIVE; DROP TABLE hints");
    }
    const Store store(bare, options); // Nothing tells whose the directories are.
    for (unsigned int i = 0; i != kBlock * kBlocks; ++i) {
        EXPECT_TRUE(FindNear(store, i, NumberOf(i)).behind) << i;
    }
    EXPECT_THAT(VerifyStore(mixed, kStorage, kDatabase),
                Contains(AllOf(HasSubstr("Invariant 6"), HasSubstr("directory"))));
}

TEST(LookUp, TheFileOfDirectoriesGoesOnBehindWhatIsTornAndBeginsAnewWhenItIsFull) {
    SimFileSystem disk;
    disk.MakeFolder("/card");
    DirectoryFile file(disk, "/card/directories");
    const auto sequences = [&] {
        std::vector<std::uint32_t> found;
        file.ForEach([&](SegmentKey key, const StoredDirectory& stored) {
            EXPECT_EQ(stored.salt, key.sequence);
            found.push_back(key.sequence);
        });
        return found;
    };
    EXPECT_THAT(sequences(), IsEmpty());
    std::vector<BlockRef> blocks(200'000, BlockRef{1, 7, 9, 11});
    const auto append = [&](std::uint32_t sequence) {
        file.Append({2, sequence}, EncodeDirectory(blocks, sequence));
    };
    append(0);
    append(1);
    const auto torn = disk.Open("/card/directories", OpenMode::ReadWrite);
    torn->Truncate(torn->Size() - 3);
    append(2);
    append(3);
    EXPECT_EQ(sequences(), (std::vector<std::uint32_t>{3, 2, 0})); // The newest first.
    std::uint32_t next = 4;
    for (std::uint64_t before = 0; before < torn->Size(); ++next) {
        before = torn->Size();
        append(next);
    }
    EXPECT_EQ(sequences(), std::vector<std::uint32_t>{next - 1});
    EXPECT_LE(torn->Size(), DirectoryFile::kMostBytes / 4);
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
