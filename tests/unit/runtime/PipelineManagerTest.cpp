#include "calvane/runtime/PipelineManager.h"

#include <atomic>

#include "calvane/config/PluginManager.h"
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
        EXPECT_FALSE(failing.IsRunning());
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
    manager.ReportFailure("two", "later"); // The first one counts, every time.
    EXPECT_EQ("one shut down with fatal error: Unknown exception", ThrownText([&] { manager.Stop(); }));
}

// The sink fails at the first buffer, or the source behind a push that went well.
TEST_F(PipelineManagerTest, AttributesFailuresToPlugins) {
    bool sinkFails = true;
    factory.makers["sink"] = [&sinkFails](const auto& config) {
        return new TestSink(config.GetPluginName(), [&sinkFails](auto&) {
            if (sinkFails) {
                throw std::runtime_error("no");
            }
        });
    };
    factory.makers["source"] = [](const auto& config) {
        return new TestSource(config.GetPluginName(), [](Source& out, auto&) -> bool {
            out.PushBuffer(MakeBuffer("x"));
            throw std::runtime_error("no");
        });
    };
    factory.makers["filter"] = [](const auto& config) { return new TestFilter(config.GetPluginName()); };
    for (const std::string plugin : {"s", "h"}) {
        sinkFails = plugin == "s";
        PipelineManager failing(&factory, false);
        failing.LoadFromIniFile(
            IniFile::FromText("[calvane]\nt.pipelines=one\n[one]\nt.pipeline.head=h\n[h]\nt.plugin.type="
                              "source\nt.pipeline.next=f\n"
                              "[f]\nt.plugin.type=filter\nt.pipeline.next=s\n[s]\nt.plugin.type=sink\n"));
        failing.Start();
        EXPECT_EQ("one shut down with fatal error: no", ThrownText([&] { failing.WaitForFinish(); }));
        ASSERT_EQ(1U, failing.GetFailures().size());
        EXPECT_EQ(plugin, failing.GetFailures()[0].plugin);
    }
}

// Also those that only a second load brings, and a description without the fault can be loaded afterwards.
TEST_F(PipelineManagerTest, RefusesSeveralThreadsInAPluginThatAllowsOne) {
    const auto description = [](const std::string& pipelines, const std::string& joint) {
        return IniFile::FromText(
            "[calvane]\nt.pipelines=" + pipelines +
            "\n[one]\nt.pipeline.head=h1\n[two]\nt.pipeline.head=h2\n"
            "[three]\nt.pipeline.head=h2\n[h1]\nt.plugin.type=source\nt.pipeline.next=joint\n"
            "[h2]\nt.plugin.type=source\nt.pipeline.next=" +
            joint + "\n[joint]\nt.plugin.type=sink\nunread=1\n[other]\nt.plugin.type=sink\n");
    };
    const auto make = [](const std::string& type, auto maker) { PluginManager::RegisterPlugin(type, maker); };
    make("source", [](CalvaneEnv*, const IPluginConfiguration& config) -> PipelinePlugin* {
        return new TestSource(config.GetPluginName());
    });
    make("sink", [](CalvaneEnv*, const IPluginConfiguration& config) -> PipelinePlugin* {
        return new TestSink(config.GetPluginName());
    });
    const std::string refusal =
        "Several threads would call plugin joint, which allows one: pipeline one, pipeline two; let them "
        "feed a "
        "QueuePlugin before it";
    PipelineManager together;
    const LogCapture log;
    EXPECT_EQ(refusal, ThrownText([&] { together.LoadFromIniFile(description("one,two", "joint")); }));
    EXPECT_EQ("joint", together.GetLoadFailure().place.group);
    PipelineManager apart;
    apart.LoadFromIniFile(description("one", "joint"));
    EXPECT_EQ(refusal, ThrownText([&] { apart.LoadFromIniFile(description("two", "joint")); }));
    apart.LoadFromIniFile(description("three", "other"));
    // The setting that nobody reads is named when its plugin is made, and not when it is shared.
    EXPECT_EQ(2U, log.Count("joint: Setting unread was never used."));
    EXPECT_EQ(1U, apart.GetUnusedSettings().size());
}

TEST_F(PipelineManagerTest, StopsFromOneThreadWhileAnotherWaits) {
    a = &Spin;
    b = &Spin;
    Load(manager);
    manager.Start();
    RunInThreads(3, [this](int number) { number == 0 ? manager.WaitForFinish() : manager.Stop(); });
    EXPECT_FALSE(manager.IsRunning());
    EXPECT_EQ("one3 two3 ", Describe(manager.GetStatus()));
    for (int round = 0; round != 50; ++round) {
        PipelineManager started(&factory, false);
        Load(started);
        started.Start();
        EXPECT_TRUE(started.IsRunning()); // Also before its threads have come to run.
        started.Stop();
    }
}

TEST_F(PipelineManagerTest, DeletesItsOwnFactoryBehindTheLastPlugin) {
    static std::vector<std::string> deleted;
    struct Factory : TestFactory {
        ~Factory() override { deleted.emplace_back("factory"); }
    };
    struct Head : TestSource {
        Head() : TestSource("h1") {}
        ~Head() override { deleted.emplace_back("plugin"); }
    };
    auto* const own = new Factory;
    own->makers["a"] = [](const auto&) { return new Head; };
    {
        PipelineManager owner(own, true);
        owner.LoadFromIniFile(IniFile::FromText(
            "[calvane]\nt.pipelines=one\n[one]\nt.pipeline.head=h1\n[h1]\nt.plugin.type=a\n"));
    }
    EXPECT_EQ((Texts{"plugin", "factory"}), deleted);
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
                quarn::osa::Thread::CurrentThread::MicroSleep(20000); // Who does not wait is here first.
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
