#include <gmock/gmock.h>

#include <cerrno>

#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/TestStore.h"
#include "support/ThrownText.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(DeviceTrouble, AStoreWithoutTrustInItsDeviceStillServesReads) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    Store store(disk, Workload::SmallStore());
    std::vector<StoreState> states;
    store.ConnectToStateSignal([&states](StoreState state) { states.push_back(state); });
    const auto track = store.NewRecording()->newTrack();
    AppendText(*track, "durable");
    store.Sync();
    AppendText(*track, "in memory");
    unsigned int failures = 0;
    disk.SetFault([&failures](const std::string& operation, const std::string& path) {
        const bool fails = operation == "sync" && path.find(".seg") != std::string::npos;
        failures += fails ? 1 : 0;
        return fails ? EIO : 0;
    });
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { store.Sync(); }), HasSubstr("/card/data/"));
    EXPECT_EQ(2U, failures); // One file, and the one that was to take its place.
    disk.SetFault(nullptr);
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { AppendText(*track, "no"); }), HasSubstr("read-only"));
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { store.Sync(); }), HasSubstr("read-only"));
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { store.NewRecording(); }), HasSubstr("read-only"));
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { track->eraseRange(0, 1); }), HasSubstr("read-only"));
    EXPECT_EQ("durable", TextAt(*track, 0));
    EXPECT_EQ("in memory", TextAt(*track, 1));
    store.Keep();
    EXPECT_THAT(states, testing::ElementsAre(StoreState::ReadOnly));
}

TEST(DeviceTrouble, ASyncThatFailedOnceStaysKnown) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    const StoreOptions options = Workload::SmallStore();
    {
        Store store(disk, options);
        const auto track = store.NewRecording()->newTrack();
        AppendText(*track, "durable");
        store.Sync();
        AppendText(*track, "written again");
        disk.SetFault([failed = false](const std::string& operation, const std::string& path) mutable {
            const bool fails = !failed && operation == "sync" && path.find(".seg") != std::string::npos;
            failed = failed || fails;
            return fails ? EIO : 0;
        });
        store.Sync();
        EXPECT_EQ(store.GetState(), StoreState::Good);
    }
    EXPECT_THAT(VerifyStore(disk, options.storage, options.database), IsEmpty());
    Store store(disk, options);
    EXPECT_THAT(store.GetDamage(), testing::ElementsAre(HasSubstr(".seg")));
    const auto tracks = store.GetRecordings().front().lock()->getTracks();
    EXPECT_EQ("written again", TextAt(*tracks.front().lock(), 1));
}

TEST(DeviceTrouble, AWriteThatFindsNoRoomLeavesNoTrace) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    const StoreOptions options = Workload::SmallStore();
    {
        Store store(disk, options);
        const auto track = store.NewRecording()->newTrack();
        AppendText(*track, "first");
        store.Sync();
        AppendText(*track, "second");
        disk.SetFault([](const std::string& operation, const std::string& path) {
            return operation == "write" && path.find(".seg") != std::string::npos ? ENOSPC : 0;
        });
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { store.Sync(); }), HasSubstr(".seg"));
        disk.SetFault(nullptr);
        AppendText(*track, "third");
        store.Sync();
        EXPECT_EQ("third", TextAt(*track, 2));
    }
    EXPECT_THAT(VerifyStore(disk, options.storage, options.database), IsEmpty());
    Store store(disk, options);
    EXPECT_THAT(store.GetDamage(), IsEmpty());
    const auto track = store.GetRecordings().front().lock()->getTracks().front().lock();
    EXPECT_EQ("second", TextAt(*track, 1));
    EXPECT_EQ("third", TextAt(*track, 2));
}

TEST(DeviceTrouble, NobodyElseComesInBeforeAllIsClosed) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    {
        Store store(disk, Workload::SmallStore());
        AppendText(*store.NewRecording()->newTrack(), "open");
        store.Commit();
        disk.device = 2;
        store.Keep();
        disk.device = 1;
        store.Keep();
        ASSERT_EQ(store.GetState(), StoreState::Good);
        EXPECT_EQ(disk.GetOpenAtUnlock(), 0U) << "when the card was away";
        store.Commit();
    }
    EXPECT_EQ(disk.GetOpenAtUnlock(), 0U) << "when the store was closed";
}

TEST(DeviceTrouble, AStoreWithoutTrustInItsCatalogueIsReadOnly) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    Store store(disk, Workload::SmallStore());
    disk.SetFault([](const std::string& operation, const std::string& path) {
        return operation == "sync" && path.find("catalogue-wal") != std::string::npos ? EIO : 0;
    });
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { store.NewRecording(); }), HasSubstr("catalogue"));
    EXPECT_EQ(store.GetState(), StoreState::ReadOnly);
}

// The next sync of the log would succeed, and say that what comes behind the lost part of it is durable.
TEST(DeviceTrouble, ALogThatIsNotSyncedWhenItIsBroughtIntoTheCatalogueIsToldOf) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    Store store(disk, Workload::SmallStore());
    const auto track = store.NewRecording()->newTrack();
    disk.SetFault([failed = false](const std::string& operation, const std::string& path) mutable {
        const bool fails = !failed && operation == "sync" && path.find("catalogue-wal") != std::string::npos;
        failed = failed || fails;
        return fails ? EIO : 0;
    });
    const auto recordOn = [&] {
        for (unsigned int i = 0; i != 200; ++i) { // A segment each; nothing syncs the log but bringing it in.
            AppendText(*track, std::string(20000, 'x'));
            store.Commit();
        }
    };
    EXPECT_THAT(ThrownText<std::runtime_error>(recordOn), HasSubstr("its device failed"));
}

TEST(DeviceTrouble, WhatIsHeldBackLetsTheStoreErase) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    constexpr std::uint64_t kCapacity = std::uint64_t{16} * 1024 * 1024;
    SimFileSystem disk;
    disk.capacity = kCapacity;
    StoreOptions options = Workload::SmallStore();
    options.maxPercent = 100;
    const auto free = [&] { return disk.GetSpace(options.storage).free; };
    {
        Store store(disk, options);
        const auto track = store.NewRecording()->newTrack();
        for (unsigned int i = 0; i != 300; ++i) {
            AppendText(*track, std::string(10000, 'x'));
            store.Sync();
        }
        ASSERT_TRUE(disk.Exists("/card/database/reserve"));
        // Somebody else takes all that is left.
        disk.Open("/card/other", OpenMode::Create)->Reserve(free());
        ASSERT_EQ(0U, free());
        bool isGivenUp = false;
        disk.SetFault([&isGivenUp](const std::string& operation, const std::string& path) {
            isGivenUp = isGivenUp || (operation == "remove" && path == "/card/database/reserve");
            return operation == "write" && path == "/card/database/catalogue-wal" && !isGivenUp ? ENOSPC : 0;
        });
        store.Keep();
        disk.SetFault(nullptr);
        EXPECT_TRUE(isGivenUp);
        EXPECT_LT(track->size(), 300U);
        EXPECT_GT(track->size(), 0U);
        EXPECT_GT(free(), kCapacity / 64);
        AppendText(*track, std::string(10000, 'y'));
        store.Sync();
        EXPECT_EQ('y', TextAt(*track, track->size() - 1)[0]);
        disk.Remove("/card/other");
        store.Keep();
        EXPECT_TRUE(disk.Exists("/card/database/reserve"));

        // Not even that helps; what was begun is finished when it can be.
        for (unsigned int i = 0; i != 100; ++i) {
            AppendText(*track, std::string(10000, 'z'));
            store.Sync();
        }
        disk.Open("/card/other", OpenMode::Create)->Reserve(free());
        disk.SetFault([](const std::string& operation, const std::string& path) {
            return operation == "write" && path == "/card/database/catalogue-wal" ? ENOSPC : 0;
        });
        EXPECT_THAT(ThrownText<std::runtime_error>([&] { store.Keep(); }),
                    HasSubstr("Cannot use the catalogue"));
        disk.SetFault(nullptr);
        disk.Remove("/card/other");
        store.Keep();
        SimFileSystem left(disk.GetImage()); // By a kill.
        Store next(left, options);
        const auto tracks = next.GetRecordings().front().lock()->getTracks();
        EXPECT_EQ(track->size(), tracks.front().lock()->size());
    }
    EXPECT_THAT(VerifyStore(disk, options.storage, options.database), IsEmpty());
}
