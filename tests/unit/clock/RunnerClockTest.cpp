#include "calvane/runtime/PipelineManager.h"
#include "support/TestPlugins.h"
#include "support/clock/TestClock.h"

using namespace quarn::calvane;
using quarn::osa::TimeStruct;

namespace {

/// One pipeline whose generator a test gives; it may move the clock and asks for an interval.
class RunnerClockTest : public testing::Test {
protected:
    using Generator = std::function<bool(TimeStruct& next)>;

    RunnerClockTest() { TestClock::Set({1000, 999000}); }
    ~RunnerClockTest() override { TestClock::Release(); }

    void Run(const Generator& generator) {
        factory.makers["s"] = [&](const auto&) {
            return new TestSource("s", [&](Source&, TimeStruct& next) { return generator(next); });
        };
        manager.LoadFromIniFile(
            IniFile::FromText("[calvane]\nt.pipelines=p\n[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=s\n"));
        manager.Start();
        manager.WaitForFinish();
    }

    TestFactory factory;
    PipelineManager manager{&factory, false};
};

} // namespace

TEST_F(RunnerClockTest, SleepsForWhatIsLeftOfTheInterval) {
    struct Call {
        TimeStruct takes;
        TimeStruct interval;
    };
    const std::vector<Call> calls{{{0, 10000}, {0, 40000}}, // 30 ms are left.
                                  {{0, 40000}, {0, 40000}}, // Nothing is left.
                                  {{3, 0}, {2, 999999}},    // Late.
                                  {{0, 10000}, {}},         // No interval: none of the call before, either.
                                  {{0, 1}, {7201, 0}},      // More than 32 bits of microseconds.
                                  {{}, {}}};
    size_t made = 0;
    Run([&](TimeStruct& next) {
        EXPECT_TRUE(next.IsZero());
        TestClock::Advance(calls[made].takes);
        next = calls[made].interval;
        return ++made != calls.size();
    });
    std::vector<TimeStruct> sleeps = TestClock::GetSleeps();
    ASSERT_GE(sleeps.size(), 2U);
    EXPECT_EQ(TimeStruct(0, 30000), sleeps.front());
    sleeps.erase(sleeps.begin());
    TimeStruct longSleep;
    for (const TimeStruct& sleep : sleeps) {
        EXPECT_FALSE(sleep.IsZero());
        longSleep = longSleep + sleep;
    }
    EXPECT_EQ(TimeStruct(7200, 999999), longSleep);
}

TEST_F(RunnerClockTest, DoesNotSleepWhenItIsToldToStop) {
    int calls = 0;
    Run([&](TimeStruct& next) {
        ++calls;
        manager.SignalShutdown();
        next = {60, 0};
        return true;
    });
    EXPECT_EQ(1, calls);
    EXPECT_TRUE(TestClock::GetSleeps().empty());
}

TEST_F(RunnerClockTest, EndsBehindTheSleepInWhichItIsToldToStop) {
    int calls = 0;
    TestClock::AtEndOfSleep([this] { manager.SignalShutdown(); });
    Run([&](TimeStruct& next) {
        ++calls;
        next = {60, 0};
        return true;
    });
    EXPECT_EQ(1, calls);
    EXPECT_EQ((std::vector<TimeStruct>{{60, 0}}), TestClock::GetSleeps());
}
