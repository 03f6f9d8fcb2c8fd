#include <gmock/gmock.h>

#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;

namespace {

constexpr std::uint64_t kCapacity =
    std::uint64_t{2200} * 1024; // Half of it is held back; the ring turns all the time.

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr unsigned int kSteps = 40000; // Sanitizers and emulators are slow.
#else
constexpr unsigned int kSteps = 1000000;
#endif

} // namespace

TEST(StoreModel, AgreesWithAListUnderRandomOperations) {
    const StoreOptions options = Workload::SmallStore();
    SimFileSystem disk;
    disk.StopTracing();
    disk.SetCapacity(kCapacity);
    Workload workload(disk, options, 1);
    for (unsigned int step = 1; step <= kSteps && workload.GetFaults().empty(); ++step) {
        workload.Step();
        if (step % (kSteps / 20) == 0) {
            workload.Reopen();
        }
    }
    EXPECT_THAT(workload.GetFaults(), IsEmpty());
    workload.GetStore().Sync();
    SimFileSystem copy(disk.GetImage());
    EXPECT_THAT(VerifyStore(copy, options.storage, options.database), IsEmpty());
}
