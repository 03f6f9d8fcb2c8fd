#include <gmock/gmock.h>

#include <cerrno>

#include "drenn/multi_track_recorder/StoreVerifierImpl.h"
#include "quarn/core/LogCapture.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr unsigned int kStride = 17; // Sanitizers and emulators are slow.
#else
constexpr unsigned int kStride = 3;
#endif

bool Changes(const std::string& operation) {
    return operation == "write" || operation == "sync" || operation == "truncate" || operation == "rename" ||
           operation == "remove" || operation == "sync folder" || operation == "reserve";
}

/// Runs a workload whose change number `at` fails, or also all after it; then opens the store on the disk as it is
/// and compares. Returns how many changes there were.
unsigned int RunWithFault(unsigned int at, bool sticking, int error) {
    SimFileSystem disk;
    disk.SetCapacity(std::uint64_t{1650} * 1024); // 1 MiB is held back, and the ring turns.
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
            EXPECT_THAT(CheckAt(disk.GetTraceLength(), store, lives), IsEmpty())
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
    for (const int error : {EIO, ENOSPC, EROFS}) {
        for (unsigned int at = 1; at <= changes && !HasFailure(); at += kStride) {
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
    disk.SetPresent(false);
    store.Keep();
    EXPECT_EQ(StoreState::NoCard, store.GetState());
    EXPECT_EQ(0U, disk.CountOpenFiles()); // So that it can be unmounted.
    EXPECT_THROW(append(2), std::runtime_error);
    disk.SetPresent(true);
    disk.SetDevice(2); // Where it is plugged in may be numbered anew.
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
