#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

#include "calvane/graph/ForwardSource.h"
#include "calvane/plugins/FormatFilterPlugin.h"
#include "calvane/plugins/IdentityPlugin.h"
#include "calvane/plugins/StatsCollectorPlugin.h"
#include "calvane/runtime/Sync.h"
#include "quarn/core/LogCapture.h"
#include "quarn/osa/Thread.h"
#include "support/TestPlugins.h"
#include "support/WaitUntil.h"

using namespace quarn::calvane;
using quarn::core::LogCapture;

namespace {

using Texts = std::vector<std::string>;

/// What is left of the lines of `log` when numbers with a point, which are times and rates, are blotted out.
Texts Blotted(const LogCapture& log) {
    Texts texts;
    for (const LogCapture::Line& line : log.GetLines()) {
        std::string text = line.text;
        for (size_t point = text.find('.'); point != std::string::npos; point = text.find('.')) {
            const size_t begin = text.find_last_not_of("0123456789", point - 1) + 1;
            const size_t end = text.find_first_not_of("0123456789", point + 1);
            text.replace(begin, end == std::string::npos ? end : end - begin, "N");
        }
        texts.push_back(text);
    }
    return texts;
}

Buffer* MakeKeyed(const std::string& text, int key) {
    Buffer* const buffer = MakeBuffer(text);
    buffer->GetMetadata().SetValue("key", key);
    return buffer;
}

} // namespace

TEST(StatsCollectorPlugin, CountsSizesAndDelaysAndLogsThem) {
    const ExpectNoBuffersLeft check;
    const LogCapture log(quarn::core::LogLevel::Information);
    std::vector<bool> stamped;
    {
        const PluginPtr first(new StatsCollectorPlugin(TestConfig("first")));
        const PluginPtr second(
            new StatsCollectorPlugin(TestConfig("second", {{"dump.modulo", "2"}, {"filter.key", "1"}})));
        const PluginPtr sink(new TestSink("sink", [&](Buffer& buffer) {
            stamped.push_back(buffer.GetMetadata().GetInt("StatTimeLower") != 0);
        }));
        first->ConnectToSink(second->GetSink());
        second->ConnectToSink(sink->GetSink());
        first->GetSink()->PushBuffer(MakeKeyed("only starts the clock", 1));
        quarn::osa::Thread::CurrentThread::MicroSleep(1000); // So that no rate is infinite.
        first->GetSink()->PushBuffer(MakeKeyed("1234", 1));
        first->GetSink()->PushBuffer(MakeKeyed("12345678", 0));
    }
    EXPECT_EQ((std::vector<bool>{false, true, true}), stamped);
    const Texts sizes{"Cumulative Time:    N seconds",          "Cumulative Total buffers: 2",
                      "Cumulative Buffer rate:   N per second", "Cumulative average buffer size : N bytes",
                      "Cumulative Min buffer size : 4 bytes",   "Cumulative Max buffer size : 8 bytes\n"};
    const Texts delays{"Cumulative Average Delta Time :  N seconds",
                       "Cumulative minimum Delta time : N seconds",
                       "Cumulative maximum Delta time : N seconds\n"};
    const Texts keyed{
        "key Cumulative Time:    N seconds",          "key Cumulative Total buffers: 1",
        "key Cumulative Buffer rate:   N per second", "key Cumulative average buffer size : N bytes",
        "key Cumulative Min buffer size : 4 bytes",   "key Cumulative Max buffer size : 4 bytes\n"};
    Texts expected;
    for (const Texts* part : {&sizes, &delays, &keyed}) {
        for (const char* kind : {"Cumulative", "Incremental"}) {
            for (std::string line : *part) {
                expected.push_back(line.replace(line.find("Cumulative"), 10, kind));
            }
        }
    }
    const Texts found = Blotted(log);
    ASSERT_GE(found.size(), expected.size());
    // The second collector dumps after its second counted buffer; a delay may be too short to be a sample.
    EXPECT_EQ((Texts(expected.begin(), expected.begin() + 12)), (Texts(found.begin(), found.begin() + 12)));
    EXPECT_EQ((Texts(expected.end() - 12, expected.end())),
              (Texts(std::find(found.begin(), found.end(), keyed[0]),
                     std::find(found.begin(), found.end(), keyed[0]) + 12)));
    EXPECT_EQ(1U, log.Count("Incremental Total buffers: 0")); // The second one's last period.
}

TEST(StatsCollectorPlugin, MeasuresTheDelayFromTheNearestCollectorBeforeIt) {
    const LogCapture log(quarn::core::LogLevel::Information);
    {
        const PluginPtr collector(new StatsCollectorPlugin(TestConfig("collector")));
        for (const unsigned int secondsAgo : {0U, 3U, 5U}) {
            Buffer* const buffer = MakeBuffer("x");
            const auto stamp = quarn::osa::TimeMonotonic() - quarn::osa::TimeStruct(secondsAgo, 0);
            const uint64_t microseconds = uint64_t{stamp.seconds} * 1000000 + stamp.microseconds;
            buffer->GetMetadata().SetValue("StatTimeLower", static_cast<int>(microseconds & 0xFFFFFFFF));
            buffer->GetMetadata().SetValue("StatTimeUpper", static_cast<int>(microseconds >> 32));
            collector->GetSink()->PushBuffer(buffer);
        }
    }
    std::map<std::string, double> seconds;
    for (const LogCapture::Line& line : log.GetLines()) {
        const size_t colon = line.text.find(" : ");
        if (colon != std::string::npos) {
            seconds[line.text.substr(0, colon)] = std::atof(line.text.c_str() + colon + 3);
        }
    }
    EXPECT_NEAR(3, seconds["Cumulative minimum Delta time"], 0.9); // The first buffer is not counted.
    EXPECT_NEAR(5, seconds["Cumulative maximum Delta time"], 0.9);
    EXPECT_NEAR(4, seconds["Cumulative Average Delta Time"], 0.9);
}

TEST(PassThroughPlugins, HandOnTheVeryBufferAndPinTheFormat) {
    const ExpectNoBuffersLeft check;
    const PluginPtr identity(new IdentityPlugin());
    EXPECT_EQ("IdentityPlugin", identity->GetName());
    const PluginPtr pinned(new FormatFilterPlugin(TestConfig("f", {{"height", "720"}, {"width", "1280"}})));
    const void* received = nullptr;
    const PluginPtr sink(new TestSink("sink", [&](Buffer& buffer) { received = &buffer; }));
    BufferFormat wide;
    wide.Set("width", 1280);
    sink->GetSink()->SetFormat(wide);
    EXPECT_EQ("Incompatible formats", ThrownText([&] { identity->ConnectToSink(sink->GetSink()); }));
    pinned->ConnectToSink(sink->GetSink());
    EXPECT_EQ("Incompatible formats", ThrownText([&] { identity->ConnectToSink(pinned->GetSink()); }));
    Buffer* const buffer = MakeBuffer("x");
    pinned->GetSink()->PushBuffer(buffer);
    EXPECT_EQ(buffer, received);
    const PluginPtr end(new TestSink("end", [&](Buffer& last) { received = &last; }));
    identity->ConnectToSink(end->GetSink());
    Buffer* const other = MakeBuffer("y");
    identity->GetSink()->PushBuffer(other);
    EXPECT_EQ(other, received);
}

TEST(ForwardSource, RelaysBetweenEndsThatCanBeExchanged) {
    const ExpectNoBuffersLeft check;
    Collector collector;
    const PluginPtr sink(new TestSink("sink", collector.Action()));
    Source a;
    Source b;
    Source destination;
    destination.ConnectTo(sink->GetSink());
    BufferFormat format;
    format.Set("w", 1);
    a.SetFormat(format);
    ForwardSource relay;
    relay.SetForwardedSource(&a);
    a.PushBuffer(MakeBuffer("no destination"));
    relay.SetDestinationSource(&destination);
    EXPECT_EQ(format, destination.GetFormat());
    a.PushBuffer(MakeBuffer("a"));
    sink->GetSink()->SetFormat(format);
    EXPECT_EQ("Incompatible formats", ThrownText([&] { relay.SetForwardedSource(&b); }));
    b.PushBuffer(MakeBuffer("not connected"));
    a.PushBuffer(MakeBuffer("still a"));
    b.SetFormat(format);
    relay.SetForwardedSource(&b);
    a.PushBuffer(MakeBuffer("disconnected"));
    b.PushBuffer(MakeBuffer("b"));
    relay.SetForwardedSource(&b); // Connected already, so this only disconnects.
    b.PushBuffer(MakeBuffer("disconnected"));
    relay.SetForwardedSource(nullptr);
    EXPECT_EQ((Texts{"a", "still a", "b"}), collector.Get());
}

TEST(Sync, WakesThreadsThatWaitUnderTheSameName) {
    Sync waiting("event");
    Sync waking("event");
    EXPECT_EQ(0, waking.broadcastSyncEvent()); // Nobody waits: not remembered.
    EXPECT_EQ(ETIMEDOUT, waiting.waitOnSyncEvent(0));
    EXPECT_EQ(ETIMEDOUT, waiting.waitOnSyncEvent(20));
    std::atomic<bool> woken{false};
    std::thread waiter([&] { woken = waiting.waitOnSyncEvent(60000) == 0; });
    EXPECT_TRUE(WaitUntil([&] {
        Sync("other").broadcastSyncEvent();
        waking.broadcastSyncEvent();
        return woken.load();
    }));
    waiter.join();
}
