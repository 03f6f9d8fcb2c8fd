// Nothing that was durable is destroyed by opening, by repairing, by a flipped bit or by a card that was made to do harm.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "drenn/multi_track_recorder/StoreInspection.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreRebuilding.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/Effort.h"
#include "support/ThrownText.h"
#include "support/store/NumberedStore.h"

using namespace drenn::multi_track_recorder;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

/// Puts the checksum of what is before it there.
void SealAt(std::vector<unsigned char>& file, std::size_t end) {
    Bytes sum;
    ByteWriter(sum).U64(ChecksumOf(file.data(), end, 0));
    std::copy(sum.begin(), sum.end(), file.begin() + static_cast<std::ptrdiff_t>(end));
}

} // namespace

TEST(Trust, ABitThatFlipsInASegmentCostsWhatItIsInAndNeverReturnsAWrongByte) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    for (const bool isClosed : {false, true}) {
        const DiskImage good = isClosed ? ClosedImage() : OpenImage();
        ASSERT_EQ(OpenedTwice(good), kRecords);
        const std::size_t size = good.files.at(good.names.at(kSegment))->size();
        for (std::size_t byte = 0; byte < size && !HasFailure(); byte += 1 + size / Effort(700)) {
            if (byte >= 52 && byte < kSegmentHeaderBytes) {
                continue; // Nothing is there.
            }
            DiskImage bad = good;
            Change(bad, kSegment)[byte] ^= static_cast<unsigned char>(1U << byte % 8);
            std::vector<std::string> damage;
            const std::size_t readable = OpenedTwice(bad, &damage);
            EXPECT_TRUE(isClosed || readable >= kRecords - 10) << byte; // At most a block of ten.
            EXPECT_TRUE(isClosed || !damage.empty()) << byte;
            SimFileSystem disk(bad);
            const VerifyReport report = ExamineStore(disk, kStorage, kDatabase);
            EXPECT_FALSE(report.wrong.empty() && report.notes.empty()) << byte;
            EXPECT_TRUE(disk.GetImage() == bad) << "verify changed something";
        }
    }
}

TEST(Trust, ADamagedSegmentIsKeptThoughAllThatCanBeReadOfItIsErased) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    DiskImage bad = OpenImage();
    Change(bad, kSegment)[20000] ^= 1;
    SimFileSystem disk(bad);
    for (unsigned int i = 0; i != 2; ++i) { // The second opening knows the damage from the catalogue.
        Store store(disk, Workload::SmallStore());
        const auto track = OnlyTrack(store);
        track->eraseRange(0, track->size());
        AppendText(*track, NumberText(0));
        store.Sync();
        store.Keep();
        EXPECT_TRUE(disk.Exists(kSegment));
    }
    disk.Remove("/card/database/catalogue");
    RebuildStore(disk, kStorage, kDatabase);
    Store(disk, Workload::SmallStore()).Keep();
    EXPECT_TRUE(disk.Exists(kSegment));
    // One of another store, however whole, is never read.
    const DiskImage made = ClosedImage();
    DiskImage other = ClosedImage();
    Change(other, kSegment) = *made.files.at(made.names.at(kSegment));
    EXPECT_EQ(OpenedTwice(other), 0U);
}

TEST(Trust, WhatBelongsToAnotherStoreIsNotMixedIn) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const DiskImage other = OpenImage();
    DiskImage mixed = OpenImage();
    const std::string next = "/card/data/00000002-00000002.seg";
    mixed.names[next] = 1000;
    mixed.files[1000] = other.files.at(other.names.at(kSegment));
    {
        SimFileSystem disk(mixed);
        const Store store(disk, Workload::SmallStore());
        EXPECT_EQ(Readable(store), kRecords);
        EXPECT_THAT(store.GetDamage(), Contains(HasSubstr(next + " belongs to another store")));
        EXPECT_TRUE(disk.Exists(next));
    }
    Change(mixed, "/card/data/store") = *other.files.at(other.names.at("/card/data/store"));
    SimFileSystem disk(mixed);
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { Store(disk, Workload::SmallStore()); }),
                HasSubstr("belong to different stores"));
    EXPECT_TRUE(disk.Exists(kSegment));
}

// Nothing of it was synced, but whoever opens the store sees it.
TEST(Trust, WhatAKilledProcessLeftIsDurableWhenItWasOpened) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem killed;
    Store left(killed, Workload::SmallStore());
    AppendText(*left.NewRecording()->newTrack(), NumberText(0));
    left.Commit();
    SimFileSystem disk(killed.GetImage(), killed.GetTrace());
    Store store(disk, Workload::SmallStore());
    EXPECT_EQ(Readable(store), 1U);
    SimFileSystem cut(PowerCuts(disk.GetTrace()).Durable());
    EXPECT_EQ(Readable(Store(cut, Workload::SmallStore())), 1U);
}

TEST(Trust, RecordsThatAreLostAtTheEndDoNotGiveTheirPlaceToNewOnes) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    DiskImage bad = OpenImage();
    std::vector<unsigned char>& segment = Change(bad, kSegment);
    *std::find(segment.rbegin(), segment.rend(), '.') = '!'; // In the payload of the last record.
    SimFileSystem disk(bad);
    {
        Store store(disk, Workload::SmallStore());
        const auto track = OnlyTrack(store);
        track->setInfo(std::string("info 100"));
        AppendText(*track, NumberText(kRecords));
        store.Sync();
    }
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
    disk.Remove("/card/database/catalogue");
    RebuildStore(disk, kStorage, kDatabase);
    EXPECT_EQ(OpenedTwice(disk.GetImage()), kRecords);
}

TEST(Trust, ZerosThatAPowerCutLeavesAreNoDamage) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    DiskImage cut = OpenImage();
    Change(cut, kSegment).resize(Change(cut, kSegment).size() + 9000);
    cut.names["/card/data/00000002-00000002.seg"] = 1000;
    cut.files[1000] = std::make_shared<DiskImage::Bytes>(9000);
    std::vector<std::string> damage;
    EXPECT_EQ(OpenedTwice(cut, &damage), kRecords);
    EXPECT_THAT(damage, IsEmpty());
}

TEST(Trust, ASectorThatCannotBeReadCostsWhatIsInIt) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk(OpenImage());
    disk.SetBadBytes(kSegment, 8192, 12288);
    const Store store(disk, Workload::SmallStore());
    EXPECT_GE(Readable(store), kRecords - 40);
    EXPECT_EQ(store.GetState(), StoreState::Good);
    EXPECT_THAT(store.GetDamage(), Contains(HasSubstr("Input/output error")));
}

TEST(Trust, WhatCannotBeReadAtAllIsSetAsideAndGivesWayFirst) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    DiskImage bad = OpenImage();
    std::vector<unsigned char>& segment = Change(bad, kSegment);
    std::fill(segment.begin(), segment.end(), static_cast<unsigned char>(0x5a));
    SimFileSystem disk(bad);
    {
        const Store store(disk, Workload::SmallStore());
        EXPECT_THAT(store.GetDamage(), Contains(HasSubstr(".aside")));
    }
    const std::string aside = std::string(kSegment) + ".aside";
    ASSERT_TRUE(disk.Exists(aside));
    EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
    disk.capacity = std::uint64_t{3} << 20U;
    Store store(disk, Workload::SmallStore());
    const auto track = OnlyTrack(store);
    AppendText(*track, NumberText(0));
    store.Sync();
    disk.capacity = std::uint64_t{1400} << 10U;
    store.Keep();
    EXPECT_FALSE(disk.Exists(aside));
}

TEST(Trust, ALaterVersionIsRefusedByNameAndNothingIsChanged) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const DiskImage good = OpenImage();
    std::vector<DiskImage> later(3, good);
    std::vector<unsigned char>& segment = Change(later[0], kSegment);
    segment[8] = 2;
    SealAt(segment, 44);
    Change(later[1], "/card/data/store")[8] = 2;
    SealAt(Change(later[1], "/card/data/store"), 28);
    {
        SimFileSystem disk(good);
        const SqliteVfs vfs(disk);
        Database("/card/database/catalogue", vfs.Name())
            .Execute("PRAGMA locking_mode=EXCLUSIVE; UPDATE store SET version=2");
        later[2] = disk.GetImage();
    }
    for (const DiskImage& image : later) {
        SimFileSystem disk(image);
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { Store(disk, Workload::SmallStore()); }),
                    AllOf(HasSubstr("later version (2"), HasSubstr("/card/")));
        EXPECT_TRUE(disk.GetImage() == image);
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { RebuildStore(disk, kStorage, kDatabase); }),
                    Not(IsEmpty()));
        EXPECT_EQ(disk.Exists(kSegment), true);
    }
}

// After a sync that failed pages count as clean: what was written before it must not count as durable, whatever the error.
TEST(Trust, AFileWhoseSyncFailedIsNotTrustedBeyondTheLastGoodOne) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    for (const int error : {ENOSPC, EDQUOT, EIO}) {
        bool hasFailed = false;
        std::string failed;
        bool isUsedAgain = false;
        SimFileSystem disk;
        Store store(disk, Workload::SmallStore());
        const auto track = store.NewRecording()->newTrack();
        AppendText(*track, "first");
        store.Sync();
        AppendText(*track, "second");
        disk.SetFault([&](const std::string& operation, const std::string& path) {
            if (operation == "sync" && path.find(".seg") != std::string::npos &&
                !std::exchange(hasFailed, true)) {
                failed = path;
                return error;
            }
            isUsedAgain = isUsedAgain || (path == failed && (operation == "write" || operation == "sync"));
            return 0;
        });
        store.Sync();
        EXPECT_TRUE(hasFailed);
        EXPECT_FALSE(isUsedAgain) << error;
        // The device got half of it.
        DiskImage torn = PowerCuts(disk.GetTrace()).Durable();
        const DiskImage all = disk.GetImage();
        Change(torn, failed) = *all.files.at(all.names.at(failed));
        Change(torn, failed).back() ^= 1U;
        SimFileSystem half(torn);
        EXPECT_EQ(TextAt(*OnlyTrack(Store(half, Workload::SmallStore())), 1), "second");
        AppendText(*track, "third");
        store.Sync();
        SimFileSystem left(
            PowerCuts(disk.GetTrace()).Durable()); // The device never got what that sync was for.
        const auto look = [error](SimFileSystem& files) {
            const Store again(files, Workload::SmallStore());
            const auto found = OnlyTrack(again);
            ASSERT_EQ(found->size(), 3U) << error;
            EXPECT_EQ(TextAt(*found, 0) + TextAt(*found, 1) + TextAt(*found, 2), "firstsecondthird");
        };
        look(left);
        EXPECT_THAT(VerifyStore(left, kStorage, kDatabase), IsEmpty());
        // The device got it all the same, and then again from the next file.
        SimFileSystem lost(WithoutCatalogue(disk.GetImage()));
        EXPECT_THAT(RebuildStore(lost, kStorage, kDatabase), IsEmpty());
        look(lost);
    }
}

TEST(Trust, WhatCannotBeChangedCanStillBeRead) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const DiskImage good = OpenImage();
    const auto opened = [&](SimFileSystem& disk, bool hasRoomAgain) {
        Store store(disk, Workload::SmallStore());
        EXPECT_EQ(store.GetState(), StoreState::ReadOnly);
        store.Keep();
        EXPECT_EQ(store.GetState(), StoreState::ReadOnly);
        EXPECT_EQ(Readable(store), kRecords);
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { AppendText(*OnlyTrack(store), "x"); }),
                    HasSubstr("read-only"));
        disk.SetFault(nullptr);
        store.Keep();
        EXPECT_EQ(store.GetState(), hasRoomAgain ? StoreState::Good : StoreState::ReadOnly);
        EXPECT_EQ(Readable(store), kRecords);
    };
    for (const int error : {EROFS, ENOSPC}) {
        SimFileSystem disk(good);
        const SimFileSystem::Fault fault = [error](const std::string& operation, const std::string&) {
            const bool grows = operation == "write" || operation == "create" || operation == "reserve";
            const bool changes = operation == "truncate" || operation == "remove" || operation == "rename";
            return grows || (changes && error == EROFS) ? error : 0;
        };
        disk.SetFault(fault);
        opened(disk, error == ENOSPC);
        EXPECT_TRUE(error != EROFS || disk.GetImage() == good);
        EXPECT_THAT(VerifyStore(disk, kStorage, kDatabase), IsEmpty());
    }
    SimFileSystem disk(ClosedImage());
    disk.Open("/card/data/store", OpenMode::ReadWrite)->Write(15, "x", 1);
    opened(disk, false);
    disk.Remove("/card/data/store");
    opened(disk, false);
}

TEST(Trust, ARecordThatTheCardHasNoRoomForIsRefusedByName) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    disk.capacity = std::uint64_t{64} << 20U;
    StoreOptions options = Workload::SmallStore();
    options.segmentBytes = 16U << 20U;
    options.maxPercent = 98;
    Store store(disk, options);
    const auto track = store.NewRecording()->newTrack();
    for (unsigned int i = 0; i != 50; ++i) {
        AppendText(*track, std::string(500000, 'x'));
    }
    store.Sync();
    const unsigned int before = track->size();
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { AppendText(*track, std::string(60U << 20U, 'l')); }),
                AllOf(HasSubstr("62914560 bytes"), HasSubstr(kStorage)));
    EXPECT_EQ(track->size(), before);
    AppendText(*track,
               std::string(15U << 20U, 'l')); // The largest that is taken becomes durable, and others stay.
    store.Sync();
    EXPECT_GT(track->size(), 10U);
}

TEST(Trust, LargeInfoTextsAreNotWrittenWithEverySegment) {
    SimFileSystem disk;
    StoreOptions options = Workload::SmallStore();
    options.segmentBytes = 1U << 20U;
    Store store(disk, options);
    const auto recording = store.NewRecording();
    std::vector<boost::shared_ptr<Track>> tracks;
    std::uint64_t given = 0;
    for (unsigned int i = 0; i != 17; ++i) {
        tracks.push_back(recording->newTrack());
        tracks.back()->setInfo(std::string(100000, static_cast<char>('a' + i)));
        given += 100000;
    }
    for (unsigned int i = 0; i != 400; ++i) {
        AppendText(*tracks[i % 17], std::string(20000, 'r'));
        given += 20000;
        store.Sync();
    }
    std::uint64_t written = 0;
    for (const DiskOperation& operation : disk.GetTrace()) {
        written += operation.path.find(".seg") != std::string::npos ? operation.bytes.size() : 0;
    }
    EXPECT_LT(written, given + given / 10);
}

TEST(Trust, ACardThatWasMadeToDoHarmIsRefusedByName) {
    TestStore test;
    AppendText(*test.NewTrack(), "kept");
    test.store = nullptr;
    test.folder.Write("victim", "untouched");
    const std::string victim = test.folder.Path("victim");
    const auto plant = [&](const std::string& path) {
        std::vector<std::function<void()>> kinds;
        kinds.emplace_back([&, path] { std::filesystem::create_symlink(victim, path); });
        kinds.emplace_back([path] { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); });
        kinds.emplace_back([path] { std::filesystem::create_directory(path); });
        return kinds;
    };
    for (const std::string name :
         {"data/store.new", "data/00000002-00000002.seg", "database/catalogue-wal", "database/reserve",
          "database/catalogue.new", "data/00000002-00000003.seg.aside"}) {
        const std::string path = test.folder.Path(name);
        std::filesystem::remove(path);
        for (const auto& kind : plant(path)) {
            kind();
            try {
                test.Open();
                EXPECT_EQ(TextAt(*test.GetTrack(), 0), "kept");
                test.store = nullptr;
                StoreInspection(test.folder.Path()).Verify();
            } catch (const std::runtime_error& error) {
                EXPECT_THAT(error.what(), HasSubstr(test.folder.Path()));
            }
            EXPECT_EQ(test.folder.Read("victim"), "untouched") << name;
            std::filesystem::remove(path);
        }
    }
    std::filesystem::rename(test.options.storage, test.folder.Path("elsewhere"));
    std::filesystem::create_directory_symlink(test.folder.Path("elsewhere"), test.options.storage);
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { test.Open(); }), HasSubstr(test.options.storage));
}

TEST(Trust, TheLockIsOfTheFoldersAndLongPathsWork) {
    TestStore test;
    std::filesystem::remove(test.options.database + "/lock"); // There may be one of an earlier version.
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { Store(PosixFileSystem(), test.options); }),
                HasSubstr("open in another process"));
    std::string deep = test.folder.Path();
    for (unsigned int i = 0; i != 6; ++i) {
        deep += "/" + std::string(100, static_cast<char>('a' + i));
        std::filesystem::create_directory(deep);
    }
    test.options.storage = deep + "/data";
    test.options.database = deep + "/database";
    test.Open();
    AppendText(*test.NewTrack(), "deep");
    EXPECT_THAT(test.Verify(), IsEmpty());
    test.options.database = "/" + std::string(5000, 'x');
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { test.Open(); }), HasSubstr("File name too long"));
}

TEST(Trust, WhatIsOpenedToBeReadIsNotChanged) {
    const DiskImage left = OpenImage(); // By a crash: there is something to recover.
    SimFileSystem disk(left);
    StoreOptions options = Workload::SmallStore();
    options.readOnly = true;
    {
        Store store(disk, options);
        EXPECT_EQ(store.GetState(), StoreState::ReadOnly);
        EXPECT_EQ(Readable(store), kRecords);
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { AppendText(*OnlyTrack(store), "x"); }),
                    HasSubstr("it was opened to be read"));
        EXPECT_THROW(Store(disk, Workload::SmallStore()), std::runtime_error); // It is in use.
        store.Keep();
    }
    EXPECT_TRUE(disk.GetImage() == left);
    const Store changed(disk, Workload::SmallStore());
    EXPECT_FALSE(disk.GetImage() == left);
}
