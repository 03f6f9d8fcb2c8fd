#include <gmock/gmock.h>

#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "support/Effort.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;

namespace {

constexpr std::uint64_t kCapacity =
    std::uint64_t{2200} * 1024; // Half of it is held back; the ring turns all the time.

} // namespace

TEST(StoreModel, AgreesWithAListUnderRandomOperations) {
    const std::size_t steps = Effort(1000000);
    const StoreOptions options = Workload::SmallStore();
    SimFileSystem disk;
    disk.isTracing = false;
    disk.capacity = kCapacity;
    Workload workload(disk, options, 1);
    for (std::size_t step = 1; step <= steps && workload.GetFaults().empty(); ++step) {
        workload.Step();
        if (step % (steps / 20) == 0) {
            workload.Reopen();
        }
    }
    EXPECT_THAT(workload.GetFaults(), IsEmpty());
    workload.GetStore().Sync();
    SimFileSystem copy(disk.GetImage());
    EXPECT_THAT(VerifyStore(copy, options.storage, options.database), IsEmpty());
}
