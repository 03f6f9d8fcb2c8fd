#include "calvane/plugins/QueuePlugin.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/osa/Semaphore.h"
#include "support/TestPlugins.h"
#include "support/clock/TestClock.h"

using namespace quarn::calvane;
using quarn::osa::TimeStruct;

namespace {

/// The clock lags behind by as long as a producer waits at the gate: it does not wait at all.
class QueueClockTest : public testing::Test {
protected:
    QueueClockTest() { TestClock::LagBehind({0, 500000}); }
    ~QueueClockTest() override { TestClock::LagBehind({}); }
};

} // namespace

TEST_F(QueueClockTest, TakesBuffersAsSoonAsItIsConstructed) {
    const ExpectNoBuffersLeft check;
    Collector collector;
    const PluginPtr sink(new TestSink("sink", collector.Action()));
    for (int round = 0; round != 100; ++round) {
        const PluginPtr queue(new QueuePlugin(nullptr, TestConfig("q")));
        queue->ConnectToSink(sink->GetSink());
        queue->GetSink()->PushBuffer(MakeBuffer("x"));
    }
    EXPECT_EQ(100U, collector.Get().size());
}

// Some milliseconds from the end of a second, which is long past for the kernel.
TEST(SemaphoreClockTest, WaitsIntoTheNextSecond) {
    TestClock::Set({1, 999000});
    quarn::osa::Semaphore semaphore("late", 0, 1);
    EXPECT_FALSE(semaphore.TryLock(30)); // Returns.
    TestClock::Release();
}
