#include <gmock/gmock.h>

#include "drenn/multi_track_recorder/internal/recovery/StoreRebuilding.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/Effort.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;

namespace {

/// Half of it is held back; the ring turns all the time.
constexpr std::uint64_t kCapacity = std::uint64_t{2200} * 1024;

/// What is lost with the catalogue is in the segments, too.
void CheckRebuilt(const SimFileSystem& disk, const std::vector<TrackLife>& lives) {
    const StoreOptions options = Workload::SmallStore();
    SimFileSystem copy(disk.GetImage());
    for (const std::string& name : copy.List(options.database)) {
        copy.Remove(options.database + "/" + name);
    }
    EXPECT_THAT(RebuildStore(copy, options.storage, options.database), IsEmpty());
    EXPECT_THAT(VerifyStore(copy, options.storage, options.database), IsEmpty());
    Store rebuilt(copy, options);
    EXPECT_THAT(CheckAt(disk.GetMoment(), rebuilt, lives), IsEmpty());
}

} // namespace

TEST(StoreModel, AgreesWithAListUnderRandomOperations) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const std::size_t steps = Effort(400000);
    SimFileSystem disk;
    disk.isTracing = false;
    disk.capacity = kCapacity;
    Workload workload(disk, Workload::SmallStore(), 1);
    for (std::size_t step = 1; step <= steps && workload.GetFaults().empty() && !HasFailure(); ++step) {
        workload.Step();
        if (step % (steps / 20) == 0) {
            workload.Reopen();
            CheckRebuilt(disk, workload.GetLives());
        }
    }
    EXPECT_THAT(workload.GetFaults(), IsEmpty());
}
