#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

#include "calvane/graph/ForwardSource.h"
#include "calvane/plugins/FormatFilterPlugin.h"
#include "calvane/plugins/IdentityPlugin.h"
#include "calvane/runtime/Sync.h"
#include "quarn/osa/Thread.h"
#include "support/RunInThreads.h"
#include "support/TestPlugins.h"
#include "support/WaitUntil.h"

using namespace quarn::calvane;

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
    b.PushBuffer(MakeBuffer("not connected"));
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
    const quarn::osa::TimeMonotonic start;
    EXPECT_EQ(ETIMEDOUT, waiting.waitOnSyncEvent(1001));
    EXPECT_GE(quarn::osa::TimeMonotonic() - start, quarn::osa::TimeStruct(1, 0));
    // One broadcast wakes all that wait, though some may have come too late for the first ones.
    constexpr int kWaiters = 8;
    int fewestBroadcasts = kWaiters;
    for (unsigned int round = 0; round != 5; ++round) {
        int broadcasts = 0;
        std::atomic<int> ready{0};
        std::atomic<int> woken{0};
        std::thread waker([&] {
            EXPECT_TRUE(WaitUntil([&] { return ready == kWaiters; }));
            quarn::osa::Thread::CurrentThread::MicroSleep(20000U
                                                          << round); // Until they wait, on any machine.
            EXPECT_TRUE(WaitUntil([&] {
                Sync("other").broadcastSyncEvent();
                waking.broadcastSyncEvent();
                ++broadcasts;
                return woken == kWaiters;
            }));
        });
        RunInThreads(kWaiters, [&](int) {
            ++ready;
            woken += waiting.waitOnSyncEvent(60000) == 0 ? 1 : 0;
        });
        waker.join();
        fewestBroadcasts = std::min(fewestBroadcasts, broadcasts);
    }
    EXPECT_LT(fewestBroadcasts, kWaiters);
}
