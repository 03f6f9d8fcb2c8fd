// What is lost with the catalogue or its log, and what a killed process or a power cut leaves of them.

#include <gmock/gmock.h>

#include <algorithm>

#include "drenn/multi_track_recorder/internal/recovery/StoreRebuilding.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/ThrownText.h"
#include "support/store/NumberedStore.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;

namespace {

StoreOptions SmallSegments() {
    StoreOptions options = Workload::SmallStore();
    options.segmentBytes = 8192;
    return options;
}

void AppendNumbers(Track& track, unsigned int count) {
    for (unsigned int i = 0; i != count; ++i) {
        AppendText(track, NumberText(i));
    }
}

/// SQLite's log ends with the first bit that is new.
void DamageWhatIsNew(DiskImage& image, DiskImage before) {
    const std::string log = "/card/database/catalogue-wal";
    const auto& old = Change(before, log);
    auto& now = Change(image, log);
    const auto added = std::mismatch(old.begin(), old.end(), now.begin(), now.end()).second;
    ASSERT_NE(added, now.end());
    *added ^= 1;
}

} // namespace

// What the next process does on the word of one that was killed must hold when the power takes back what that had written.
TEST(Trust, AStoreThatWasHalfMadeIsMadeByTheNextProcess) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const StoreOptions options = Workload::SmallStore();
    SimFileSystem disk;
    { Store(disk, options).NewRecording()->newTrack(); }
    const std::vector<DiskOperation> trace = disk.GetTrace();
    DiskImage image;
    for (std::size_t end = 0; end != trace.size(); ++end) {
        image.Apply(trace[end]);
        SimFileSystem next(image, {trace.begin(), trace.begin() + static_cast<std::ptrdiff_t>(end) + 1});
        const Store opened(next, options);
        const std::size_t now = next.GetMoment();
        const auto check = [&](std::size_t, const DiskImage& left) {
            SimFileSystem files(left);
            EXPECT_NO_THROW(Store(files, options)) << end;
            EXPECT_THAT(VerifyStore(files, kStorage, kDatabase), IsEmpty()) << end;
        };
        PowerCuts(next.GetTrace()).ForEach(2, 1, check, now, now);
    }
}

// An earlier version made the catalogue at its place, and could be cut short.
TEST(Trust, AnEmptyCatalogueWithoutDataIsMadeAnew) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    { const Store made(disk, Workload::SmallStore()); }
    disk.Remove("/card/data/store");
    disk.Open("/card/database/catalogue", OpenMode::ReadWrite)->Truncate(0);
    {
        Store store(disk, Workload::SmallStore());
        AppendText(*store.NewRecording()->newTrack(), "kept");
    }
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
    disk.Remove("/card/data/store"); // With data, it is lost.
    disk.Open("/card/database/catalogue", OpenMode::ReadWrite)->Truncate(0);
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { Store(disk, Workload::SmallStore()); }),
                testing::HasSubstr("calvane-store rebuild"));
}

TEST(Trust, WhatWasErasedStaysSoThoughTheLogOfTheCatalogueIsDamaged) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk(OpenImage());
    DiskImage bad;
    {
        Store store(disk, Workload::SmallStore());
        const auto track = OnlyTrack(store);
        track->setInfo(std::string("info 100"));
        AppendText(*track, NumberText(kRecords));
        store.Sync();
        const DiskImage before = disk.GetImage();
        track->eraseRange(10, 20);
        store.Sync();
        bad = disk.GetImage();
        DamageWhatIsNew(bad, before);
    }
    SimFileSystem damaged(bad);
    const Store store(damaged, Workload::SmallStore());
    EXPECT_EQ(Readable(store), kRecords + 1 - 10);
    EXPECT_EQ(TextAt(*OnlyTrack(store), 10), NumberText(20));
}

// The newest segment that is durable has what the next one begins with, however little of it is left.
TEST(Trust, ASegmentIsKeptUntilTheNextOneIsDurable) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const StoreOptions options = SmallSegments();
    SimFileSystem disk;
    Store store(disk, options);
    const auto recording = store.NewRecording();
    const auto track = recording->newTrack();
    const auto gone = recording->newTrack();
    AppendText(*gone, "gone");
    AppendNumbers(*track, 20);
    store.Sync();
    recording->eraseTrack(gone->getId());
    track->eraseRange(0, 20);
    AppendText(*track, std::string(6000, ' '));
    store.Commit(); // To the next segment.
    ASSERT_TRUE(disk.Exists("/card/data/00000002-00000002.seg"));
    store.Keep();
    SimFileSystem left(WithoutCatalogue(PowerCuts(disk.GetTrace()).Durable()));
    RebuildStore(left, kStorage, kDatabase);
    const Store again(left, options);
    const auto rebuilt = again.GetRecordings().front().lock();
    ASSERT_EQ(rebuilt->getTracks().size(), 1U);
    EXPECT_EQ(OnlyTrack(again)->getId(), track->getId());
    EXPECT_EQ(OnlyTrack(again)->size(), 0U);
    EXPECT_GT(rebuilt->newTrack()->getId(), gone->getId()); // Its blocks are still there.
}

TEST(Trust, WhatWasErasedStaysSoWhereTheNextBlockIsInAnotherSegment) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const StoreOptions options = SmallSegments();
    SimFileSystem disk;
    Store store(disk, options);
    const auto recording = store.NewRecording();
    const auto track = recording->newTrack();
    const auto other = recording->newTrack();
    AppendNumbers(*track, 20);
    store.Sync();
    AppendText(*other, std::string(6000, ' '));
    track->eraseRange(5, 10);
    ASSERT_TRUE(disk.Exists("/card/data/00000002-00000002.seg"));
    SimFileSystem left(WithoutCatalogue(disk.GetImage()));
    RebuildStore(left, kStorage, kDatabase);
    EXPECT_EQ(OnlyTrack(Store(left, options))->size(), track->size());
}

TEST(Trust, TracksThatTheCatalogueHasLostComeBackWithoutWhatWasErased) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    DiskImage bad;
    {
        Store store(disk, Workload::SmallStore());
        const DiskImage before = disk.GetImage();
        const auto recording = store.NewRecording();
        const auto track = recording->newTrack();
        AppendNumbers(*track, 30);
        store.Sync();
        track->eraseRange(0, 10);
        recording->newTrack(); // With the next record a state is written, behind those that it calls erased.
        track->setInfo(std::string("info 30"));
        AppendText(*track, NumberText(30));
        store.Sync();
        bad = disk.GetImage();
        DamageWhatIsNew(bad, before);
    }
    SimFileSystem damaged(bad);
    EXPECT_EQ(Readable(Store(damaged, Workload::SmallStore())), 21U);
    EXPECT_THAT(VerifyStore(damaged, kStorage, kDatabase), IsEmpty());
}
