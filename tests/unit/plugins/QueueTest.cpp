#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "calvane/plugins/QueuePlugin.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/LogCapture.h"
#include "quarn/osa/Semaphore.h"
#include "quarn/osa/Thread.h"
#include "support/TestPlugins.h"
#include "support/WaitUntil.h"

using namespace quarn::calvane;
using quarn::core::LogCapture;
using quarn::osa::Semaphore;

namespace {

using Settings = std::map<std::string, std::string>;

/// A queue in front of a sink that a test can hold up.
class QueuePluginTest : public testing::Test {
protected:
    ~QueuePluginTest() override {
        queue.reset();
        sink.reset();
        EXPECT_EQ(alive_, CountedMemory::alive.load());
    }

    void Make(const Settings& settings) {
        queue.reset(new QueuePlugin(&env, TestConfig("q", settings)));
        sink.reset(new TestSink("sink", [this](Buffer& buffer) {
            const std::string text =
                TextOf(buffer) + (buffer.GetMetadata().Contains("FirstAfterGap")
                                      ? "+" + buffer.GetMetadata().GetString("FirstAfterGap")
                                      : "");
            if (text == "hold") {
                held.Release();
                go.Lock();
            }
            if (text == "fail") {
                throw quarn::osa::Exception("sink failed");
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

    TestReporter reporter;
    CalvaneEnv env{&reporter, false};
    Semaphore held{"held", 0, 1};
    Semaphore go{"go", 0, 1};
    Collector collector;
    PluginPtr sink;
    PluginPtr queue;

private:
    const int alive_ = CountedMemory::alive;
};

using Texts = std::vector<std::string>;

const char* const kRefused = "q: Receiving thread is not running";

} // namespace

TEST_F(QueuePluginTest, PushesEverythingInOrderBeforeItGoes) {
    const LogCapture log;
    Make({});
    Hold();
    Texts expected{"hold"};
    for (int i = 0; i != 50; ++i) {
        expected.push_back(std::to_string(i));
        Push(expected.back());
    }
    go.Release();
    queue.reset();
    EXPECT_EQ(expected, collector.Get());
    for (const char* line : {"Created QueuePlugin", "QueuePlugin thread started", "QueuePlugin shutting down",
                             "QueuePlugin thread terminating"}) {
        EXPECT_EQ(1U, log.Count(line)) << line;
    }
}

TEST_F(QueuePluginTest, RefusesABufferThatDoesNotFit) {
    Make({{"queue.length", "2"}});
    Hold();
    Push("1");
    Push("2");
    EXPECT_EQ(kRefused, ThrownText([this] { Push("3"); }));
    go.Release();
    queue->Drain();
    EXPECT_EQ((Texts{"hold", "1", "2"}), collector.Get());
    Push("4");
    queue->Drain();
    EXPECT_EQ("4", collector.Get().back());
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
    EXPECT_EQ("after+1", texts[texts.size() - 2]);
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

TEST_F(QueuePluginTest, HasRoomForNothingWhenItsLengthIsZero) {
    const LogCapture log;
    Make({{"queue.length", "65536"}, {"allow.drop.on.write", "1"}});
    Push("x");
    queue.reset();
    EXPECT_EQ(1U, log.Count("Failed to shut down listener thread"));
    EXPECT_TRUE(collector.Get().empty());
}

TEST_F(QueuePluginTest, ServesSeveralProducersAtOnce) {
    constexpr int kProducers = 4;
    constexpr int kEach = 500;
    const LogCapture log(quarn::core::LogLevel::Information);
    Make({{"queue.length", "8"}, {"allow.drop.on.write", "1"}});
    std::vector<std::thread> producers;
    for (int i = 0; i != kProducers; ++i) {
        producers.emplace_back([this] {
            for (int n = 0; n != kEach; ++n) {
                Push("x");
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    queue->Drain();
    const size_t passed = collector.Get().size();
    size_t dropped = 0;
    for (const auto& line : log.GetLines()) {
        unsigned int drops = 0;
        if (std::sscanf(line.text.c_str(), "Dropped %u of last 100 buffers", &drops) == 1) {
            dropped += drops;
        }
    }
    EXPECT_LE(passed, size_t{kProducers * kEach});
    EXPECT_LE(dropped, kProducers * kEach - passed); // The last period may not be told yet.
    EXPECT_GE(dropped + 100 + passed, size_t{kProducers * kEach});
}

TEST_F(QueuePluginTest, AcceptsPrioritiesInItsRangeOnly) {
    for (const char* good : {"20", "-119"}) {
        Make({{"thread.priority", good}});
    }
    for (const char* bad : {"21", "-120"}) {
        EXPECT_EQ("Invalid value of thread.priority", ThrownText([&] { Make({{"thread.priority", bad}}); }));
    }
}
