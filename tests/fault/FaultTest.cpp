#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>

#include "calvane/plugins/FileSink.h"
#include "calvane/plugins/QueuePlugin.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "calvane/runtime/MonitorThread.h"
#include "calvane/runtime/PipelineManager.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/LogCapture.h"
#include "quarn/osa/Thread.h"
#include "quarn/osa/TimeStruct.h"
#include "support/Program.h"
#include "support/TempFolder.h"
#include "support/TestPlugins.h"
#include "support/WaitUntil.h"

using namespace quarn::calvane;
using quarn::core::IniFile;
using quarn::core::LogCapture;

namespace {

/// A file system of 1 MiB, mounted for one test.
class SmallDisk {
public:
    SmallDisk() {
        mounted_ = mount("tmpfs", folder_.Path().c_str(), "tmpfs", 0, "size=1m") == 0;
        error_ = mounted_ ? 0 : errno;
    }
    ~SmallDisk() {
        if (mounted_) {
            umount(folder_.Path().c_str());
        }
    }
    std::string WhyNot() const { return mounted_ ? "" : std::string("cannot mount: ") + strerror(error_); }
    const TempFolder& Folder() const { return folder_; }

private:
    TempFolder folder_;
    bool mounted_;
    int error_;
};

unsigned int CountEntries(const char* folder) {
    unsigned int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) {
        ++count;
    }
    return count;
}

long ResidentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") {
            long kibibytes = 0;
            status >> kibibytes;
            return kibibytes;
        }
    }
    return -1;
}

} // namespace

TEST(WatchdogDeathTest, EndsTheProcessWhenAThreadHangsAndOnlyThen) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto hang = [] {
        MonitorThread monitor(100);
        monitor.AddMonitorEntry("sleeper");
        bool* const alive = monitor.AddMonitorEntry("worker");
        for (int i = 0; i != 3000; ++i) { // Long enough for any machine.
            MonitorThread::Kick(alive);
            quarn::osa::Thread::CurrentThread::MicroSleep(10000);
        }
    };
    EXPECT_EXIT(hang(), testing::ExitedWithCode(255), "calvane: Thread sleeper failure");

    MonitorThread monitor(300);
    bool* const alive = monitor.AddMonitorEntry("lively");
    for (int i = 0; i != 100; ++i) { // Three periods.
        MonitorThread::Kick(alive);
        quarn::osa::Thread::CurrentThread::MicroSleep(10000);
    }
    monitor.DeleteMonitorEntry(alive);
    quarn::osa::Thread::CurrentThread::MicroSleep(700000); // Two more, without an entry.
}

TEST(FullDisk, FailsThePipelineWithAReason) {
    const SmallDisk disk;
    if (!disk.WhyNot().empty()) {
        GTEST_SKIP() << disk.WhyNot();
    }
    const TempFolder folder;
    folder.Write("in", std::string(3 * 1024 * 1024, 'x'));
    const std::string target = disk.Folder().Path("out");
    // Once straight into the sink, once behind a queue that still holds the rest when the reader is done.
    for (const std::string next : {"writer", "queue"}) {
        folder.Write(
            "d.ini",
            "[calvane]\nt.pipelines=p\n[p]\nt.pipeline.head=reader\n[reader]\nt.plugin.type=FileSource\n"
            "filename=in\nbuffer.maxcount=5000\nt.pipeline.next=" +
                next +
                "\n[queue]\nt.plugin.type=QueuePlugin\nqueue.length=5000\nt.pipeline.next=writer\n"
                "[writer]\nt.plugin.type=FileSink\nfilename=" +
                target + "\n");
        Program program("calvane", {"run", "d.ini"}, folder.Path());
        EXPECT_EQ(1, program.Wait());
        EXPECT_NE(std::string::npos, program.Err().find("No space left on device")) << program.Err();
        EXPECT_NE(std::string::npos,
                  program.Err().find("calvane: " + (next == "queue" ? next : "p") +
                                     " shut down with fatal error: Failed to write file " + target + "\n"))
            << program.Err();
        unlink(target.c_str());
    }
}

TEST(FullDisk, LetsASinkGoOnWhenThereIsRoomAgain) {
    const ExpectNoBuffersLeft check;
    const SmallDisk disk;
    if (!disk.WhyNot().empty()) {
        GTEST_SKIP() << disk.WhyNot();
    }
    disk.Folder().Write("ballast", std::string(1024 * 1024, 'x'));
    const PluginPtr sink(new FileSink(TestConfig("sink", {{"filename", disk.Folder().Path("out")}})));
    const auto push = [&] { sink->GetSink()->PushBuffer(MakeBuffer("some bytes")); };
    EXPECT_EQ("Failed to write file " + disk.Folder().Path("out"), ThrownText(push));
    EXPECT_EQ("Failed to write file " + disk.Folder().Path("out"), ThrownText(push));
    unlink(disk.Folder().Path("ballast").c_str());
    push();
    EXPECT_EQ("some bytes", disk.Folder().Read("out"));
}

TEST(ReadError, EndsThePipelineWithALineInTheLog) {
    // What a process may not read fails only when it is read.
    const TempFolder folder;
    const LogCapture log;
    PipelineManager manager;
    manager.LoadFromIniFile(IniFile::FromText(
        "[calvane]\nt.pipelines=p\n[p]\nt.pipeline.head=reader\n[reader]\nt.plugin.type=FileSource\n"
        "filename=/proc/self/mem\nt.pipeline.next=writer\n[writer]\nt.plugin.type=FileSink\nfilename=" +
        folder.Path("out") + "\n"));
    manager.Start();
    manager.WaitForFinish();
    EXPECT_EQ(1U, log.Count("Failed to read file /proc/self/mem: Input/output error"));
    EXPECT_FALSE(folder.Has("out"));
}

// Rounds of everything that a process does with pipelines, one of them failing now and then.
TEST(Soak, StartsAndStopsThousandsOfTimesWithoutLeavingAnything) {
    const ExpectNoBuffersLeft check;
    const LogCapture log(quarn::core::LogLevel::Off); // The failures are wanted.
    std::string description = "[calvane]\nt.pipelines=p0,p1,p2,p3\n";
    for (const std::string n : {"0", "1", "2", "3"}) {
        description += "[p" + n + "]\nt.pipeline.head=s" + n + "\n[s" + n +
                       "]\nt.plugin.type=" + (n == "0" ? "failing" : "endless") + "\nt.pipeline.next=q" + n +
                       "\n[q" + n + "]\nt.plugin.type=queue\nt.pipeline.next=t" + n + "\n[t" + n +
                       "]\nt.plugin.type=sink\n";
    }
    const IniFile ini = IniFile::FromText(description);
    const auto pushOn = [](Source& out, quarn::osa::TimeStruct& next) {
        out.PushBuffer(MakeBuffer("x"));
        next = {0, 100};
        return true;
    };
    const auto round = [&](int number) {
        TestFactory factory;
        PipelineManager manager(&factory, false);
        CalvaneEnv env(manager.GetReporter(), false);
        factory.makers["endless"] = [&](const auto& config) {
            return new TestSource(config.GetPluginName(), pushOn);
        };
        factory.makers["failing"] = [&](const auto& config) {
            return new TestSource(config.GetPluginName(), [=](Source& out, quarn::osa::TimeStruct& next) {
                if (number % 4 == 0) {
                    throw quarn::osa::Exception("wanted");
                }
                return pushOn(out, next);
            });
        };
        factory.makers["queue"] = [&](const auto& config) { return new QueuePlugin(&env, config); };
        factory.makers["sink"] = [](const auto& config) { return new TestSink(config.GetPluginName()); };
        manager.LoadFromIniFile(ini);
        manager.PipelinesConstructed();
        manager.Start();
        if (number % 4 == 0) {
            EXPECT_EQ("p0 shut down with fatal error: wanted", ThrownText([&] { manager.WaitForFinish(); }));
        } else {
            manager.Stop();
        }
    };
    for (int number = 0; number != 100; ++number) {
        round(number);
    }
    const unsigned int descriptors = CountEntries("/proc/self/fd");
    const long memory = ResidentKiB();
    for (int number = 0; number != 1000; ++number) {
        round(number);
    }
    EXPECT_TRUE(WaitUntil([] { return CountEntries("/proc/self/task") <= 2; })); // One may be a sanitizer's.
    EXPECT_EQ(descriptors, CountEntries("/proc/self/fd"));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(ResidentKiB(), memory + 4096); // Sanitizers keep what was freed for a while.
#else
    EXPECT_GT(memory, 0);
#endif
}

TEST(Stop, WaitsForTheSleepUnderWayAndNoLonger) {
    TestFactory factory;
    std::atomic<int> calls{0};
    factory.makers["s"] = [&](const auto&) {
        return new TestSource("s", [&](auto&, quarn::osa::TimeStruct& next) {
            ++calls;
            next = {0, 300000};
            return true;
        });
    };
    PipelineManager manager(&factory, false);
    manager.LoadFromIniFile(
        IniFile::FromText("[calvane]\nt.pipelines=p\n[p]\nt.pipeline.head=s\n[s]\nt.plugin.type=s\n"));
    const quarn::osa::TimeMonotonic start;
    manager.Start();
    ASSERT_TRUE(WaitUntil([&] { return calls == 1; }));
    manager.Stop();
    EXPECT_EQ(1, calls);
    EXPECT_GE(quarn::osa::TimeMonotonic() - start, quarn::osa::TimeStruct(0, 300000));
}
