#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "calvane/graph/ForwardSource.h"
#include "calvane/plugins/FormatFilterPlugin.h"
#include "calvane/plugins/IdentityPlugin.h"
#include "calvane/plugins/StatsCollectorPlugin.h"
#include "calvane/runtime/Sync.h"
#include "quarn/osa/Thread.h"
#include "support/TestPlugins.h"
#include "support/WaitUntil.h"

using namespace quarn::calvane;
using testing::StartsWith;

namespace {

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
    // The second collector dumps after its second counted buffer, and again what it has at its end: nothing.
    for (const char* line : {"Cumulative Total buffers: 2", "Cumulative Min buffer size : 4 bytes",
                             "Incremental Max buffer size : 8 bytes\n", "key Cumulative Total buffers: 1",
                             "key Incremental Max buffer size : 4 bytes\n"}) {
        EXPECT_GE(log.Count(line), 1U) << line;
    }
    EXPECT_EQ(1U, log.Count("Incremental Total buffers: 0"));
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
    Texts lines;
    for (const LogCapture::Line& line : log.GetLines()) {
        lines.push_back(line.text);
    }
    // The first buffer is not counted.
    EXPECT_THAT(lines, testing::IsSupersetOf({StartsWith("Cumulative minimum Delta time : 3."),
                                              StartsWith("Cumulative maximum Delta time : 5."),
                                              StartsWith("Cumulative Average Delta Time :  4.")}));
}

TEST(PassThroughPlugins, HandOnTheVeryBufferAndPinTheFormat) {
    const ExpectNoBuffersLeft check;
    const PluginPtr identity(new IdentityPlugin());
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
    a.PushBuffer(MakeBuffer("still a"));
    b.SetFormat(format);
    relay.SetForwardedSource(&b);
    a.PushBuffer(MakeBuffer("disconnected"));
    b.PushBuffer(MakeBuffer("b"));
    relay.SetForwardedSource(&b); // Connected already, so this only disconnects.
    b.PushBuffer(MakeBuffer("disconnected"));
    EXPECT_EQ((Texts{"a", "still a", "b"}), collector.Get());
}

TEST(Sync, WakesThreadsThatWaitUnderTheSameName) {
    Sync waiting("event");
    Sync waking("event");
    EXPECT_EQ(0, waking.broadcastSyncEvent()); // Nobody waits: not remembered.
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
