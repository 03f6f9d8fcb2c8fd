#include <gmock/gmock.h>

#include "calvane/plugins/StatsCollectorPlugin.h"
#include "support/TestPlugins.h"
#include "support/clock/TestClock.h"

using namespace quarn::calvane;
using quarn::osa::TimeStruct;

namespace {

// Later than 2^32 microseconds, so that both halves of a stamp count.
const TimeStruct kStart(10000, 0);

/// The lines of one dump of sizes; those of `sizes` (average, smallest, largest) only where there are some.
Texts Dump(const std::string& label, const std::string& time, const std::string& count,
           const std::string& rate, const Texts& sizes) {
    Texts lines{label + " Time:    " + time + " seconds", label + " Total buffers: " + count,
                label + " Buffer rate:   " + rate + " per second"};
    if (!sizes.empty()) {
        lines.push_back(label + " average buffer size : " + sizes[0] + " bytes");
        lines.push_back(label + " Min buffer size : " + sizes[1] + " bytes");
        lines.push_back(label + " Max buffer size : " + sizes[2] + " bytes\n");
    }
    return lines;
}

Texts Join(const std::vector<Texts>& parts) {
    Texts all;
    for (const Texts& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

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
    std::vector<bool> withStamp;
    PluginPtr sink{new TestSink("sink", [this](Buffer& buffer) {
        withStamp.push_back(buffer.GetMetadata().Contains("StatTimeLower"));
    })};
    PluginPtr collector;
};

} // namespace

TEST_F(StatsClockTest, DumpsTotalsAndEachPeriodByItself) {
    Make({{"dump.modulo", "2"}, {"filter.key", "1"}});
    Push({}, "only starts the clock", 1);
    Push({1, 0}, "1234", 1);
    EXPECT_EQ(Texts(), TakeLines());
    Push({2, 0}, "12345678");
    EXPECT_EQ(Join({Dump("Cumulative", "3.000000", "2", "0.666667", {"6.000000", "4", "8"}),
                    Dump("Incremental", "3.000000", "2", "0.666667", {"6.000000", "4", "8"}),
                    Dump("key Cumulative", "3.000000", "1", "0.333333", {"4.000000", "4", "4"}),
                    Dump("key Incremental", "3.000000", "1", "0.333333", {"4.000000", "4", "4"})}),
              TakeLines());
    Push({0, 500000}, "12");
    collector.reset();
    EXPECT_EQ(Join({Dump("Cumulative", "3.500000", "3", "0.857143", {"4.666667", "2", "8"}),
                    Dump("Incremental", "0.500000", "1", "2.000000", {"2.000000", "2", "2"}),
                    Dump("key Cumulative", "3.500000", "1", "0.285714", {"4.000000", "4", "4"}),
                    Dump("key Incremental", "0.500000", "0", "0.000000", {})}),
              TakeLines());
    EXPECT_EQ((std::vector<bool>{false, true, true, true}), withStamp);
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
    EXPECT_EQ(Join({Dump("Cumulative", "0.000000", "1", "inf", {"1.000000", "1", "1"}),
                    Dump("Incremental", "0.000000", "1", "inf", {"1.000000", "1", "1"})}),
              TakeLines());
}
