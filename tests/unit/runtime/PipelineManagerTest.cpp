#include "calvane/runtime/PipelineManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "calvane/plugins/QueuePlugin.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/LogCapture.h"
#include "quarn/osa/Semaphore.h"
#include "quarn/osa/Thread.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;
using quarn::core::IniFile;
using quarn::core::LogCapture;
using quarn::osa::TimeStruct;

namespace {

/// Two pipelines, "one" and "two", whose generators a test gives.
class PipelineManagerTest : public testing::Test {
protected:
    void Load(PipelineManager& loaded) {
        for (const auto& entry : generators) {
            factory.makers[entry.first] = [this, name = entry.first](const IPluginConfiguration&) {
                return new TestSource(name, [this, name](Source& out, TimeStruct& next) {
                    return generators.at(name)(out, next);
                });
            };
        }
        loaded.LoadFromIniFile(IniFile::FromText(
            "[calvane]\nt.pipelines=one,two\n[one]\nt.pipeline.head=h1\n[two]\nt.pipeline.head=h2\n"
            "[h1]\nt.plugin.type=a\n[h2]\nt.plugin.type=b\n"));
        loaded.PipelinesConstructed();
    }
    static bool Spin(Source&, TimeStruct& next) {
        next = {0, 1000};
        return true;
    }
    static bool End(Source&, TimeStruct&) { return false; }

    std::map<std::string, TestSource::Generator> generators{{"a", &End}, {"b", &End}};
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

TEST_F(PipelineManagerTest, EndsWhenItsPipelinesAreOutOfData) {
    const LogCapture log;
    Load(manager);
    EXPECT_FALSE(manager.IsRunning());
    manager.WaitForFinish(); // Not started: nothing to wait for.
    manager.Start();
    manager.WaitForFinish();
    EXPECT_FALSE(manager.IsRunning());
    EXPECT_EQ("one2 two2 ", Describe(manager.GetStatus()));
    for (const char* line : {"Pipeline starting", "Pipeline out of data", "Pipeline exiting normally"}) {
        EXPECT_EQ(2U, log.Count(line));
    }
    EXPECT_TRUE(log.Contains("Loading 2 pipelines"));
}

TEST_F(PipelineManagerTest, StopsAllPipelinesOnTheFirstFailure) {
    generators["a"] = &Spin;
    generators["b"] = [](auto&, auto&) -> bool { throw quarn::osa::Exception("50% broken"); };
    const LogCapture log;
    const std::string failure = "two shut down with fatal error: 50% broken";
    {
        PipelineManager failing(&factory, false);
        Load(failing);
        failing.Start();
        EXPECT_EQ(failure, ThrownText([&] { failing.WaitForFinish(); }));
        EXPECT_EQ(failure, ThrownText([&] { failing.Stop(); }));
        EXPECT_EQ("one3 two450% broken ", Describe(failing.GetStatus()));
    }
    EXPECT_EQ(1U, log.Count("Initiating shutdown: " + failure));
    EXPECT_EQ(1U, log.Count("Pipeline exiting due to exception: 50% broken"));
    EXPECT_EQ(1U, log.Count("~PipelineManagerImpl: discarding exception from Stop(): " + failure));
}

TEST_F(PipelineManagerTest, ReportsWhatIsNoStandardExceptionToo) {
    generators["a"] = [](auto&, auto&) -> bool { throw 42; };
    Load(manager);
    manager.Start();
    EXPECT_EQ("one shut down with fatal error: Unknown exception",
              ThrownText([&] { manager.WaitForFinish(); }));
}

TEST_F(PipelineManagerTest, StopsFromOneThreadWhileAnotherWaits) {
    generators["a"] = &Spin;
    generators["b"] = &Spin;
    Load(manager);
    manager.Start();
    std::thread waiter([this] { manager.WaitForFinish(); });
    std::thread stopper([this] { manager.Stop(); });
    manager.Stop();
    waiter.join();
    stopper.join();
    EXPECT_FALSE(manager.IsRunning());
    EXPECT_EQ("one3 two3 ", Describe(manager.GetStatus()));
}

TEST_F(PipelineManagerTest, CountsTheTimeOfTheCallAgainstTheInterval) {
    std::vector<TimeStruct> calls;
    generators["a"] = [&calls](auto&, TimeStruct& next) {
        EXPECT_TRUE(next.IsZero());
        calls.emplace_back(true);
        next = calls.size() == 1 ? TimeStruct(0, 30000) : TimeStruct(0, 1000);
        quarn::osa::Thread::CurrentThread::MicroSleep(10000);
        return calls.size() < 4;
    };
    Load(manager);
    manager.Start();
    manager.WaitForFinish();
    ASSERT_EQ(4U, calls.size());
    EXPECT_GE(calls[1] - calls[0], TimeStruct(0, 30000)); // The interval, of which the call took a part.
    EXPECT_GE(calls[2] - calls[1], TimeStruct(0, 10000)); // The call took longer: no pause.
}

TEST_F(PipelineManagerTest, NamesTheSettingThatItCannotRead) {
    const auto load = [this](const std::string& settings) {
        return ThrownText([&] {
            manager.LoadFromIniFile(IniFile::FromText("[calvane]\nt.pipelines=p\n[p]\nt.pipeline.head=h\n" +
                                                      settings + "\n[h]\nt.plugin.type=a\n"));
        });
    };
    factory.makers["a"] = [](const auto&) { return new TestSource("h"); };
    EXPECT_EQ("Invalid value of \"abc\" for setting thread.priority in pipeline p",
              load("thread.priority=abc"));
    EXPECT_EQ("Invalid value of \"-1\" for setting thread.stack.bytes in pipeline p",
              load("thread.stack.bytes=-1\nthread.priority=x"));
    EXPECT_EQ("Missing t.pipelines setting in calvane group",
              ThrownText([&] { manager.LoadFromIniFile(IniFile::FromText("[calvane]\n")); }));
    EXPECT_TRUE(manager.GetStatus().empty());
}

TEST_F(PipelineManagerTest, LoadsACorrectedDescriptionInPlaceOfAFailedOne) {
    const std::string start =
        "[calvane]\nt.pipelines=one,two\n[one]\nt.pipeline.head=h1\n"
        "[two]\nt.pipeline.head=h2\n[h1]\nt.plugin.type=FileSource\nfilename=/dev/null\n"
        "[h2]\nt.plugin.type=";
    PipelineManager builtins;
    EXPECT_THROW(builtins.LoadFromIniFile(IniFile::FromText(start + "Nothing\n")), quarn::osa::Exception);
    EXPECT_EQ("one0 ", Describe(builtins.GetStatus()));
    builtins.LoadFromIniFile(IniFile::FromText(start + "FileSource\nfilename=/dev/null\n"));
    builtins.Start();
    builtins.WaitForFinish();
    EXPECT_EQ("one2 two2 ", Describe(builtins.GetStatus()));
}

TEST(PipelineManager, DrainsQueuesAndTellsOfFailuresInThem) {
    const ExpectNoBuffersLeft check;
    quarn::osa::Semaphore go("go", 0, 1);
    std::atomic<int> written{0};
    TestFactory factory;
    PipelineManager manager(&factory, false);
    factory.makers["source"] = [](const auto&) {
        return new TestSource("s", [count = 0](Source& out, auto&) mutable {
            out.PushBuffer(MakeBuffer("x"));
            return ++count < 5;
        });
    };
    CalvaneEnv env(manager.GetReporter(), false);
    factory.makers["queue"] = [&](const IPluginConfiguration& config) {
        return new QueuePlugin(&env, config);
    };
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
    manager.LoadFromIniFile(IniFile::FromText(
        "[calvane]\nt.pipelines=p\n[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=source\nt.pipeline.next=q\n"
        "[q]\nt.plugin.type=queue\nt.pipeline.next=t\n[t]\nt.plugin.type=sink\n"));
    manager.Start();
    manager.WaitForFinish(); // The source is done while all its buffers wait.
    EXPECT_EQ(0, written);
    go.Release();
    manager.Drain();
    EXPECT_EQ(4, written);
    EXPECT_EQ("q shut down with fatal error: disk full", ThrownText([&] { manager.WaitForFinish(); }));
}
