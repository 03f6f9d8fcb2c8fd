#include <gmock/gmock.h>

#include "calvane/plugins/StatsCollectorPlugin.h"
#include "support/TestPlugins.h"
#include "support/clock/TestClock.h"

using namespace quarn::calvane;
using quarn::osa::TimeStruct;
using testing::ElementsAre;

namespace {

// Later than 2^32 microseconds, so that both halves of a stamp count.
const TimeStruct kStart(10000, 0);

/// A collector whose buffers come at times of the test's choice.
class StatsClockTest : public testing::Test {
protected:
    StatsClockTest() { TestClock::Set(kStart); }
    ~StatsClockTest() override { TestClock::Release(); }

    void Make(const Settings& settings) {
        collector.reset(new StatsCollectorPlugin(TestConfig("collector", settings)));
        collector->ConnectToSink(sink->GetSink());
    }
    /// `after`: since the buffer before. `stamped`: how long ago, 0 for no stamp.
    void Push(const TimeStruct& after, const std::string& text, int key = 0, const TimeStruct& stamped = {}) {
        TestClock::Advance(after);
        Buffer* const buffer = MakeBuffer(text);
        buffer->GetMetadata().SetValue("key", key);
        if (!stamped.IsZero()) {
            SetStamp(*buffer, quarn::osa::TimeMonotonic() - stamped);
        }
        collector->GetSink()->PushBuffer(buffer);
    }
    static void SetStamp(Buffer& buffer, const TimeStruct& time) {
        const uint64_t microseconds = uint64_t{time.seconds} * 1000000 + time.microseconds;
        buffer.GetMetadata().SetValue("StatTimeLower", static_cast<int>(microseconds & 0xFFFFFFFF));
        buffer.GetMetadata().SetValue("StatTimeUpper", static_cast<int>(microseconds >> 32));
    }
    /// What was logged since the last call.
    Texts TakeLines() {
        Texts lines;
        for (const LogCapture::Line& line : log->GetLines()) {
            lines.push_back(line.text);
        }
        log = std::make_unique<LogCapture>(quarn::core::LogLevel::Information);
        return lines;
    }

    ExpectNoBuffersLeft check;
    std::unique_ptr<LogCapture> log = std::make_unique<LogCapture>(quarn::core::LogLevel::Information);
    PluginPtr sink{new TestSink("sink")};
    PluginPtr collector;
};

} // namespace

TEST_F(StatsClockTest, DumpsTotalsAndEachPeriodByItself) {
    Make({{"dump.modulo", "2"}, {"filter.key", "1"}});
    Push({}, "only starts the clock", 1);
    Push({1, 0}, "1234", 1);
    EXPECT_THAT(TakeLines(), ElementsAre());
    Push({2, 0}, "12345678");
    EXPECT_THAT(
        TakeLines(),
        ElementsAre(
            "Cumulative Time:    3.000000 seconds", "Cumulative Total buffers: 2",
            "Cumulative Buffer rate:   0.666667 per second",
            "Cumulative average buffer size : 6.000000 bytes", "Cumulative Min buffer size : 4 bytes",
            "Cumulative Max buffer size : 8 bytes\n", "Incremental Time:    3.000000 seconds",
            "Incremental Total buffers: 2", "Incremental Buffer rate:   0.666667 per second",
            "Incremental average buffer size : 6.000000 bytes", "Incremental Min buffer size : 4 bytes",
            "Incremental Max buffer size : 8 bytes\n", "key Cumulative Time:    3.000000 seconds",
            "key Cumulative Total buffers: 1", "key Cumulative Buffer rate:   0.333333 per second",
            "key Cumulative average buffer size : 4.000000 bytes", "key Cumulative Min buffer size : 4 bytes",
            "key Cumulative Max buffer size : 4 bytes\n", "key Incremental Time:    3.000000 seconds",
            "key Incremental Total buffers: 1", "key Incremental Buffer rate:   0.333333 per second",
            "key Incremental average buffer size : 4.000000 bytes",
            "key Incremental Min buffer size : 4 bytes", "key Incremental Max buffer size : 4 bytes\n"));
    Push({0, 500000}, "12");
    collector.reset();
    EXPECT_THAT(
        TakeLines(),
        ElementsAre(
            "Cumulative Time:    3.500000 seconds", "Cumulative Total buffers: 3",
            "Cumulative Buffer rate:   0.857143 per second",
            "Cumulative average buffer size : 4.666667 bytes", "Cumulative Min buffer size : 2 bytes",
            "Cumulative Max buffer size : 8 bytes\n", "Incremental Time:    0.500000 seconds",
            "Incremental Total buffers: 1", "Incremental Buffer rate:   2.000000 per second",
            "Incremental average buffer size : 2.000000 bytes", "Incremental Min buffer size : 2 bytes",
            "Incremental Max buffer size : 2 bytes\n", "key Cumulative Time:    3.500000 seconds",
            "key Cumulative Total buffers: 1", "key Cumulative Buffer rate:   0.285714 per second",
            "key Cumulative average buffer size : 4.000000 bytes", "key Cumulative Min buffer size : 4 bytes",
            "key Cumulative Max buffer size : 4 bytes\n", "key Incremental Time:    0.500000 seconds",
            "key Incremental Total buffers: 0", "key Incremental Buffer rate:   0.000000 per second"));
}

TEST_F(StatsClockTest, MeasuresTheDelayFromTheNearestCollectorBeforeIt) {
    const PluginPtr second(new StatsCollectorPlugin(TestConfig("second", {{"dump.modulo", "3"}})));
    const PluginPtr slow(new TestSink("slow", [&](Buffer& buffer) {
        TestClock::Advance({0, 250000});
        second->GetSink()->PushBuffer(buffer.Duplicate());
    }));
    collector.reset(new StatsCollectorPlugin(TestConfig("first", {{"dump.modulo", "3"}})));
    collector->ConnectToSink(slow->GetSink());
    Push({}, "x", 0, {9, 0}); // Not counted, nor stamped anew: the second collector's first one, too.
    Push({}, "x", 0, {3, 0});
    Push({}, "x", 0, {5, 0});
    Push({}, "x"); // Without a stamp before the first collector.
    const Texts lines = TakeLines();
    EXPECT_THAT(lines, testing::IsSupersetOf({"Cumulative Average Delta Time :  4.000000 seconds",
                                              "Incremental minimum Delta time : 3.000000 seconds",
                                              "Incremental maximum Delta time : 5.000000 seconds\n"}));
    // The first collector's stamp takes the place of the older one.
    EXPECT_THAT(lines, testing::IsSupersetOf({"Cumulative Average Delta Time :  0.250000 seconds",
                                              "Cumulative maximum Delta time : 0.250000 seconds\n"}));
    Push({1, 0}, "x", 0, {7, 0});
    collector.reset();
    EXPECT_THAT(TakeLines(), testing::IsSupersetOf({"Cumulative Average Delta Time :  5.000000 seconds",
                                                    "Incremental minimum Delta time : 7.000000 seconds"}));
}

TEST_F(StatsClockTest, PassesOverAStampOfTheFutureAndDivisionByNoTime) {
    Make({});
    Push({}, "x");
    Buffer* const buffer = MakeBuffer("x");
    SetStamp(*buffer, kStart); // Now.
    collector->GetSink()->PushBuffer(buffer);
    collector.reset();
    EXPECT_THAT(TakeLines(),
                ElementsAre("Cumulative Time:    0.000000 seconds", "Cumulative Total buffers: 1",
                            "Cumulative Buffer rate:   inf per second", testing::_, testing::_, testing::_,
                            testing::_, testing::_, testing::_, testing::_, testing::_, testing::_));
}
