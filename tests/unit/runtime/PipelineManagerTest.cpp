#include "calvane/runtime/PipelineManager.h"

#include <atomic>

#include "calvane/plugins/QueuePlugin.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/osa/Semaphore.h"
#include "quarn/osa/Thread.h"
#include "support/RunInThreads.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using quarn::osa::TimeStruct;

namespace {

/// Two pipelines, "one" and "two", whose generators a test gives.
class PipelineManagerTest : public testing::Test {
protected:
    void Load(PipelineManager& loaded) {
        factory.makers["a"] = [this](const auto&) { return new TestSource("h1", a); };
        factory.makers["b"] = [this](const auto&) { return new TestSource("h2", b); };
        loaded.LoadFromIniFile(IniFile::FromText(
            "[calvane]\nt.pipelines=one,two\n[one]\nt.pipeline.head=h1\n[two]\nt.pipeline.head=h2\n"
            "[h1]\nt.plugin.type=a\n[h2]\nt.plugin.type=b\n"));
    }
    static bool Spin(Source&, TimeStruct& next) {
        next = {0, 1000};
        return true;
    }
    static bool End(Source&, TimeStruct&) { return false; }

    TestSource::Generator a = &End;
    TestSource::Generator b = &End;
    TestFactory factory;
    PipelineManager manager{&factory, false};
};

std::string Describe(const std::vector<PipelineStatus>& pipelines) {
    std::string text;
    for (const PipelineStatus& pipeline : pipelines) {
        text += pipeline.name + std::to_string(static_cast<int>(pipeline.state)) + pipeline.failure + " ";
    }
    return text;
}

} // namespace

TEST_F(PipelineManagerTest, StopsAllPipelinesOnTheFirstFailure) {
    a = &Spin;
    b = [](auto&, auto&) -> bool { throw quarn::osa::Exception("50% broken"); };
    const LogCapture log;
    const std::string failure = "two shut down with fatal error: 50% broken";
    {
        PipelineManager failing(&factory, false);
        Load(failing);
        failing.Start();
        EXPECT_EQ(failure, ThrownText([&] { failing.WaitForFinish(); }));
        EXPECT_EQ("one3 two450% broken ", Describe(failing.GetStatus()));
    }
    EXPECT_EQ(1U, log.Count("Initiating shutdown: " + failure));
    EXPECT_EQ(1U, log.Count("~PipelineManagerImpl: discarding exception from Stop(): " + failure));
}

TEST_F(PipelineManagerTest, ReportsWhatIsNoStandardExceptionToo) {
    a = [](auto&, auto&) -> bool { throw 42; };
    Load(manager);
    manager.Start();
    EXPECT_EQ("one shut down with fatal error: Unknown exception",
              ThrownText([&] { manager.WaitForFinish(); }));
}

TEST_F(PipelineManagerTest, StopsFromOneThreadWhileAnotherWaits) {
    a = &Spin;
    b = &Spin;
    Load(manager);
    manager.Start();
    RunInThreads(3, [this](int number) { number == 0 ? manager.WaitForFinish() : manager.Stop(); });
    EXPECT_FALSE(manager.IsRunning());
    EXPECT_EQ("one3 two3 ", Describe(manager.GetStatus()));
}

TEST_F(PipelineManagerTest, CountsTheTimeOfTheCallAgainstTheInterval) {
    std::vector<TimeStruct> calls;
    a = [&calls](auto&, TimeStruct& next) {
        calls.emplace_back(true);
        next = calls.size() == 1 ? TimeStruct(0, 60000) : TimeStruct(0, 1000);
        quarn::osa::Thread::CurrentThread::MicroSleep(10000);
        return calls.size() < 4;
    };
    Load(manager);
    manager.Start();
    manager.WaitForFinish();
    ASSERT_EQ(4U, calls.size());
    // The interval, less what passed between its start and the first line of the call.
    EXPECT_GE(calls[1] - calls[0], TimeStruct(0, 40000));
    EXPECT_GE(calls[2] - calls[1], TimeStruct(0, 10000)); // The call took longer: no pause.
}

TEST_F(PipelineManagerTest, LoadsACorrectedDescriptionInPlaceOfAFailedOne) {
    const std::string start = "[calvane]\nt.pipelines=one,two\n[one]\nt.pipeline.head=h1\n";
    const std::string end = "[h1]\nt.plugin.type=a\n[h2]\nt.plugin.type=a\n[two]\nt.pipeline.head=h2\n";
    factory.makers["a"] = [this](const auto& config) { return new TestSource(config.GetPluginName(), a); };
    const auto load = [&](const std::string& text) { manager.LoadFromIniFile(IniFile::FromText(text)); };
    EXPECT_EQ("Invalid value of \"abc\" for setting thread.priority in pipeline two",
              ThrownText([&] { load(start + end + "thread.priority=abc\n"); }));
    EXPECT_EQ("one0 ", Describe(manager.GetStatus()));
    load(start + end);
    manager.WaitForFinish(); // Not started: nothing to wait for.
    manager.Start();
    manager.WaitForFinish();
    EXPECT_FALSE(manager.IsRunning());
    EXPECT_EQ("one2 two2 ", Describe(manager.GetStatus()));
}

TEST_F(PipelineManagerTest, DrainsQueuesAndTellsOfFailuresInThem) {
    const ExpectNoBuffersLeft check;
    quarn::osa::Semaphore go("go", 0, 1);
    std::atomic<int> written{0};
    PipelineManager draining(&factory, false);
    CalvaneEnv env(draining.GetReporter(), false);
    a = [count = 0](Source& out, auto&) mutable {
        out.PushBuffer(MakeBuffer("x"));
        return ++count < 5;
    };
    factory.makers["source"] = [this](const auto&) { return new TestSource("s", a); };
    factory.makers["queue"] = [&](const auto& config) { return new QueuePlugin(&env, config); };
    factory.makers["sink"] = [&](const auto&) {
        return new TestSink("t", [&](Buffer&) {
            if (written == 0) {
                go.Lock();
            }
            if (++written == 4) {
                throw quarn::osa::Exception("disk full");
            }
        });
    };
    draining.LoadFromIniFile(IniFile::FromText(
        "[calvane]\nt.pipelines=p\n[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=source\nt.pipeline.next=q\n"
        "[q]\nt.plugin.type=queue\nt.pipeline.next=t\n[t]\nt.plugin.type=sink\n"));
    draining.Start();
    draining.WaitForFinish(); // The source is done while all its buffers wait.
    EXPECT_EQ(0, written);
    go.Release();
    draining.Drain();
    EXPECT_EQ(4, written);
    EXPECT_EQ("q shut down with fatal error: disk full", ThrownText([&] { draining.WaitForFinish(); }));
}
