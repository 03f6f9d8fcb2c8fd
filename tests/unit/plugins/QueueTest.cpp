#include <thread>

#include "calvane/plugins/QueuePlugin.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/osa/Semaphore.h"
#include "quarn/osa/Thread.h"
#include "support/RunInThreads.h"
#include "support/TestPlugins.h"
#include "support/WaitUntil.h"

using namespace quarn::calvane;
using quarn::osa::Semaphore;

namespace {

/// A queue in front of a sink that a test can hold up.
class QueuePluginTest : public testing::Test {
protected:
    void Make(const Settings& settings) {
        queue.reset(new QueuePlugin(&env, TestConfig("q", settings)));
        sink.reset(new TestSink("sink", [this](Buffer& buffer) {
            const std::string text = TextOf(buffer) + buffer.GetMetadata().GetString("FirstAfterGap");
            if (text == "hold") {
                held.Release();
                go.Lock();
            }
            if (text == "fail") {
                throw quarn::osa::Exception("sink failed");
            }
            if (text == "throw") {
                throw 42;
            }
            collector.Add(text);
        }));
        queue->ConnectToSink(sink->GetSink());
    }
    void Push(const std::string& text) { queue->GetSink()->PushBuffer(MakeBuffer(text)); }
    /// Stalls the consumer inside the sink.
    void Hold() {
        Push("hold");
        held.Lock();
    }

    ExpectNoBuffersLeft check; // The last to go.
    TestReporter reporter;
    CalvaneEnv env{&reporter, false};
    Semaphore held{"held", 0, 1};
    Semaphore go{"go", 0, 1};
    Collector collector;
    PluginPtr sink;
    PluginPtr queue;
};

const char* const kRefused = "q: Receiving thread is not running";

} // namespace

TEST_F(QueuePluginTest, PushesEverythingInOrderBeforeItGoes) {
    Make({});
    Hold();
    Texts expected{"hold"};
    for (const char* text : {"1", "2", "3", "4"}) {
        expected.push_back(text);
        Push(text);
        queue->GetSink()->PushBuffer(nullptr); // Not the message to stop.
    }
    go.Release();
    queue.reset();
    EXPECT_EQ(expected, collector.Get());
}

TEST_F(QueuePluginTest, RefusesABufferThatDoesNotFit) {
    Make({{"queue.length", "2"}});
    Hold();
    Push("1");
    Push("2");
    EXPECT_EQ(kRefused, ThrownText([this] { Push("3"); }));
    go.Release();
    queue->Drain();
    Push("4");
    queue->Drain();
    EXPECT_EQ((Texts{"hold", "1", "2", "4"}), collector.Get());
}

TEST_F(QueuePluginTest, DropsMarksAndCountsWhereThatIsAllowed) {
    const LogCapture log;
    Make({{"queue.length", "70000"}, {"allow.drop.on.write", "1"}}); // 70000 modulo 65536
    Hold();
    for (int i = 0; i != 4464 + 3; ++i) {
        Push("x");
    }
    go.Release();
    queue->Drain();
    Push("after");
    Push("next");
    queue->Drain();
    const Texts texts = collector.Get();
    ASSERT_EQ(1U + 4464U + 2U, texts.size());
    EXPECT_EQ("after1", texts[texts.size() - 2]);
    EXPECT_EQ("next", texts.back());
    for (int i = 4470; i != 4500; ++i) {
        Push("x");
    }
    EXPECT_EQ(1U, log.Count("Dropped 3 of last 100 buffers"));
    EXPECT_EQ(0U, log.Count("Dropped 0 of last 100 buffers"));
}

TEST_F(QueuePluginTest, ReportsAFailureDownstreamAndThenTakesNoMore) {
    Make({{"queue.length", "10"}});
    Hold();
    Push("fail");
    Push("deleted");
    go.Release();
    queue->Drain();
    EXPECT_EQ((Texts{"q: sink failed"}), reporter.reports.Get());
    EXPECT_EQ(kRefused, ThrownText([this] { Push("too late"); }));
    EXPECT_EQ((Texts{"hold"}), collector.Get());
}

TEST_F(QueuePluginTest, ReportsWhatIsNoStandardExceptionToo) {
    Make({});
    Push("throw");
    queue->Drain();
    queue.reset();
    EXPECT_EQ((Texts{"q: Unknown exception"}), reporter.reports.Get());
}

TEST_F(QueuePluginTest, LeavesItsThreadBehindWhenItIsFullAndPushesNothingAnyMore) {
    const LogCapture log;
    Make({{"queue.length", "2"}});
    Hold();
    Push("1");
    Push("2");
    queue.reset(); // Returns although the sink does not.
    EXPECT_EQ(1U, log.Count("Failed to shut down listener thread"));
    go.Release();
    EXPECT_TRUE(WaitUntil([&log] { return log.Contains("QueuePlugin thread terminating"); }));
    EXPECT_EQ((Texts{"hold"}), collector.Get());
    EXPECT_TRUE(reporter.reports.Get().empty());
}

TEST_F(QueuePluginTest, WaitsForAPushUnderWayWhenItIsFull) {
    Make({{"queue.length", "1"}});
    Hold();
    Push("1");
    std::thread later([this] {
        quarn::osa::Thread::CurrentThread::MicroSleep(50000);
        go.Release();
    });
    queue.reset();
    EXPECT_EQ((Texts{"hold"}), collector.Get()); // The sink has returned: it may go now.
    sink.reset();
    later.join();
}

TEST_F(QueuePluginTest, GoesEvenIfItNeverHasRoom) {
    Make({{"queue.length", "65536"}, {"allow.drop.on.write", "1"}}); // 0, taken modulo 65536
    Push("x");
    queue.reset(); // Not even the message to stop fits.
    EXPECT_TRUE(collector.Get().empty());
}

TEST_F(QueuePluginTest, ServesSeveralProducersAtOnce) {
    constexpr size_t kAll = 4 * 500;
    const LogCapture log(quarn::core::LogLevel::Information);
    Make({{"queue.length", "8"}, {"allow.drop.on.write", "1"}});
    RunInThreads(4, [this](int) {
        for (int n = 0; n != 500; ++n) {
            Push("x");
        }
    });
    queue->Drain();
    const size_t passed = collector.Get().size();
    size_t dropped = 0;
    for (const auto& line : log.GetLines()) {
        unsigned int drops = 0;
        if (std::sscanf(line.text.c_str(), "Dropped %u of last 100 buffers", &drops) == 1) {
            dropped += drops;
        }
    }
    EXPECT_LE(dropped + passed, kAll); // The last period may not be told yet.
    EXPECT_GE(dropped + passed + 100, kAll);
}

TEST_F(QueuePluginTest, IsWatchedOnlyWhenAskedToBe) {
    const auto freeEntries = [this] {
        std::vector<bool*> taken;
        for (bool* entry = env.AddMonitorEntry("x"); entry != nullptr; entry = env.AddMonitorEntry("x")) {
            taken.push_back(entry);
        }
        for (bool* const entry : taken) {
            env.DeleteMonitorEntry(entry);
        }
        return taken.size();
    };
    Make({});
    EXPECT_EQ(100U, freeEntries());
    Make({{"procmon.timeout.seconds", "1"}});
    EXPECT_EQ(99U, freeEntries());
    queue.reset();
    EXPECT_EQ(100U, freeEntries());
}

TEST_F(QueuePluginTest, AcceptsPrioritiesInItsRangeOnly) {
    Make({{"thread.priority", "-119"}});
    Make({{"thread.priority", "20"}});
    for (const char* bad : {"21", "-120"}) {
        EXPECT_EQ("Invalid value of thread.priority", ThrownText([&] { Make({{"thread.priority", bad}}); }));
    }
}
