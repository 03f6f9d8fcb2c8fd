#include <gmock/gmock.h>

#include <cerrno>

#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/Effort.h"
#include "support/TestStore.h"
#include "support/ThrownText.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

bool Changes(const std::string& operation) {
    return operation == "write" || operation == "sync" || operation == "truncate" || operation == "rename" ||
           operation == "remove" || operation == "sync folder" || operation == "reserve";
}

/// Runs a workload whose change number `at` fails, or also all after it; then opens the store on the disk as it is
/// and compares. Returns how many changes there were.
unsigned int RunWithFault(unsigned int at, bool sticking, int error) {
    SimFileSystem disk;
    disk.capacity = std::uint64_t{1650} * 1024; // 1 MiB is held back, and the ring turns.
    unsigned int changes = 0;
    std::vector<TrackLife> lives;
    std::vector<std::string> faults;
    {
        Workload workload(disk, Workload::SmallStore(), 5);
        disk.SetFault([&](const char* operation, const std::string&) {
            if (!Changes(operation)) {
                return 0;
            }
            ++changes;
            return changes == at || (sticking && changes > at) ? error : 0;
        });
        for (unsigned int step = 0; step != 200; ++step) {
            try {
                workload.Step();
            } catch (const std::exception&) {
                break; // Told to the caller, who cannot know what was done of it.
            }
        }
        lives = workload.GetLives();
        faults = workload.GetFaults();
    }
    EXPECT_THAT(faults, IsEmpty()) << "change " << at << " failed with " << error;
    disk.SetFault(nullptr);
    const StoreOptions options = Workload::SmallStore();
    try {
        {
            Store store(disk, options);
            EXPECT_THAT(CheckAt(disk.GetMoment(), store, lives), IsEmpty())
                << "change " << at << " failed with " << error;
        }
        EXPECT_THAT(VerifyStore(disk, options.storage, options.database), IsEmpty());
    } catch (const std::exception& failure) {
        ADD_FAILURE() << "change " << at << " failed with " << error << ": " << failure.what();
    }
    return changes;
}

} // namespace

TEST(DeviceTrouble, LosesNothingThatWasDurableWhateverFails) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const unsigned int changes = RunWithFault(0, false, 0);
    ASSERT_GT(changes, 100U);
    const auto stride = static_cast<unsigned int>(1 + changes / Effort(changes / 2));
    for (const int error : {EIO, ENOSPC, EROFS}) {
        for (unsigned int at = 1; at <= changes && !HasFailure(); at += stride) {
            RunWithFault(at, false, error);
            RunWithFault(at, true, error);
        }
    }
}

TEST(DeviceTrouble, GoesOnWhenTheCardIsBackAndLeavesAnotherAlone) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    SimFileSystem disk;
    StoreOptions options = Workload::SmallStore();
    Store store(disk, options);
    std::vector<StoreState> states;
    store.ConnectToStateSignal([&states](StoreState state) { states.push_back(state); });
    const auto recording = store.NewRecording();
    const auto track = recording->newTrack();
    const auto append = [&track](unsigned char byte) {
        BlobRecord record;
        record.add(Blob(&byte, 1));
        *track << record;
    };
    append(1);
    store.Sync();
    disk.isPresent = false;
    store.Keep();
    EXPECT_EQ(StoreState::NoCard, store.GetState());
    EXPECT_EQ(0U, disk.CountOpenFiles()); // So that it can be unmounted.
    EXPECT_THROW(append(2), std::runtime_error);
    disk.isPresent = true;
    disk.device = 2; // Where it is plugged in may be numbered anew.
    store.Keep();
    EXPECT_EQ(StoreState::Good, store.GetState());
    append(3);
    store.Sync();
    BlobRecord record;
    track->seekg(1);
    *track >> record;
    EXPECT_EQ(3, *record.blobs().at(0).data());
    EXPECT_THAT(states, testing::ElementsAre(StoreState::NoCard, StoreState::Good));
}

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
    }
    EXPECT_THAT(VerifyStore(disk, options.storage, options.database), IsEmpty());
}

TEST(DeviceTrouble, AFullCardCanBeOpened) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    StoreOptions options = Workload::SmallStore();
    SimFileSystem disk;
    DiskImage left;
    {
        // A segment that died while it was the newest, and one behind it that a crash left open.
        Store store(disk, options);
        const auto track = store.NewRecording()->newTrack();
        AppendText(*track, std::string(20000, 'x'));
        store.Sync();
        track->eraseRange(0, 1);
        AppendText(*track, std::string(30000, 'y'));
        store.Commit();
        left = disk.GetImage();
    }
    SimFileSystem full(left);
    bool isCut = false; // Recovery still finds room for its transaction; what comes behind does not.
    unsigned int syncs = 0;
    unsigned int refused = 0;
    full.SetFault([&](const std::string& operation, const std::string& path) {
        const bool isLog = path.find("catalogue-wal") != std::string::npos;
        isCut = isCut || (operation == "sync" && path.find(".seg") != std::string::npos);
        syncs += isCut && isLog && operation == "sync" ? 1U : 0U;
        const bool fails =
            isLog && syncs >= 2 && operation == "write"; // A log is begun with a sync of its own.
        refused += fails ? 1 : 0;
        return fails ? ENOSPC : 0;
    });
    {
        Store store(full, options);
        EXPECT_GT(refused, 0U);
        const auto track = store.GetRecordings().front().lock()->getTracks().front().lock();
        EXPECT_EQ(std::string(30000, 'y'), TextAt(*track, 0));
        full.SetFault(nullptr);
        const std::size_t before = full.List(options.storage).size();
        store.Keep();
        EXPECT_EQ(before - 1, full.List(options.storage).size());
    }
    EXPECT_THAT(VerifyStore(full, options.storage, options.database), IsEmpty());
}
