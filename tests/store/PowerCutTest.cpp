#include <gmock/gmock.h>

#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr unsigned int kWorkloads = 1; // Sanitizers and emulators are slow.
constexpr unsigned int kSteps = 150;
#else
constexpr unsigned int kWorkloads = 13;
constexpr unsigned int kSteps = 500;
#endif
constexpr unsigned int kImagesEach = 4;

/// One run of a store and what became of it.
struct Story {
    std::vector<DiskOperation> trace;
    std::vector<TrackLife> lives;
};

Story Tell(unsigned int seed) {
    SimFileSystem disk;
    disk.SetCapacity(std::uint64_t{1650} * 1024); // 1 MiB is held back, and the ring turns.
    Workload workload(disk, Workload::SmallStore(), seed);
    for (unsigned int step = 0; step != kSteps; ++step) {
        workload.Step();
    }
    EXPECT_THAT(workload.GetFaults(), IsEmpty());
    return {disk.GetTrace(), workload.GetLives()};
}

/// Opens what a power cut left and says what is wrong with it.
std::vector<std::string> Examine(std::size_t moment, SimFileSystem& disk,
                                 const std::vector<TrackLife>& lives) {
    const StoreOptions options = Workload::SmallStore();
    try {
        {
            Store store(disk, options);
            std::vector<std::string> faults = CheckAt(moment, store, lives);
            if (!faults.empty()) {
                return faults;
            }
        }
        return VerifyStore(disk, options.storage, options.database);
    } catch (const std::exception& error) {
        return {error.what()};
    }
}

bool IsSync(const DiskOperation& operation) {
    return operation.kind == DiskOperation::Kind::SyncFile ||
           operation.kind == DiskOperation::Kind::SyncFolder;
}

/// What a sync is of, so that all of one kind can be left out.
std::string KindOf(const DiskOperation& sync) {
    const std::string kind = sync.kind == DiskOperation::Kind::SyncFolder ? "folder " : "file ";
    const std::string name = sync.path.substr(sync.path.rfind('/') + 1);
    const bool isSegment =
        sync.path.find("/data/") != std::string::npos && name.find("store") == std::string::npos;
    return kind + (isSegment ? "segment" : name);
}

} // namespace

TEST(PowerCut, LosesNothingThatWasDurableAndBringsNothingBack) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    std::size_t images = 0;
    for (unsigned int seed = 0; seed != kWorkloads; ++seed) {
        const Story story = Tell(seed);
        images += PowerCuts(story.trace)
                      .ForEach(kImagesEach, seed, [&](std::size_t moment, const DiskImage& image) {
                          if (!HasFailure()) {
                              SimFileSystem disk(image);
                              EXPECT_THAT(Examine(moment, disk, story.lives), IsEmpty())
                                  << "moment " << moment;
                          }
                      });
    }
    RecordProperty("images", static_cast<int>(images));
    std::cout << images << " states of the disk were opened\n";
}

// The power goes again while the store is being put in order.
TEST(PowerCut, DuringRecoveryChangesNothing) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const Story story = Tell(99);
    std::size_t chosen = 0;
    PowerCuts(story.trace).ForEach(3, 99, [&](std::size_t moment, const DiskImage& image) {
        if (++chosen % 200 != 0 || HasFailure()) {
            return;
        }
        SimFileSystem disk(image);
        EXPECT_THAT(Examine(moment, disk, story.lives), IsEmpty());
        PowerCuts(disk.GetTrace(), image).ForEach(3, 1, [&](std::size_t, const DiskImage& again) {
            SimFileSystem second(again);
            EXPECT_THAT(Examine(moment, second, story.lives), IsEmpty()) << "moment " << moment;
        });
    });
}

// The test of the test: each kind of sync is needed for something.
TEST(PowerCut, IsNoticedWhereASyncIsMissing) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const Story story = Tell(7);
    std::map<std::string, unsigned int> kinds;
    for (const DiskOperation& operation : story.trace) {
        // Folders themselves are there at once on the simulated disk.
        if (IsSync(operation) && operation.path != "/card") {
            ++kinds[KindOf(operation)];
        }
    }
    for (const auto& [kind, count] : kinds) {
        std::vector<DiskOperation> careless = story.trace;
        for (DiskOperation& operation : careless) {
            if (IsSync(operation) && KindOf(operation) == kind) {
                operation = {DiskOperation::Kind::SyncFile, 0, "nothing", "", 0, {}};
            }
        }
        unsigned int noticed = 0;
        PowerCuts(careless).ForEach(kImagesEach, 7, [&](std::size_t moment, const DiskImage& image) {
            if (noticed == 0) {
                SimFileSystem disk(image);
                noticed += Examine(moment, disk, story.lives).empty() ? 0U : 1U;
            }
        });
        EXPECT_NE(0U, noticed) << "nobody misses the " << count << " syncs of " << kind;
    }
}
