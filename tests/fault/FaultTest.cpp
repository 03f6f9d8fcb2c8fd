#include <gmock/gmock.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "calvane/plugins/FileSink.h"
#include "calvane/plugins/QueuePlugin.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "calvane/runtime/PipelineManager.h"
#include "support/Emulation.h"
#include "support/Program.h"
#include "support/TestPlugins.h"
#include "support/WaitUntil.h"

using namespace quarn::calvane;
using testing::HasSubstr;

namespace {

/// A file system of 1 MiB, mounted for one test.
class FullDisk : public testing::Test {
protected:
    void SetUp() override {
        if (mount("tmpfs", disk.Path().c_str(), "tmpfs", 0, "size=1m") != 0) {
            GTEST_SKIP() << "cannot mount: " << strerror(errno);
        }
    }
    void TearDown() override { umount(disk.Path().c_str()); }

    const TempFolder disk;
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSlowed = true;
#else
constexpr bool kSlowed = kEmulated;
#endif

auto CountEntries(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

long ResidentPages() {
    long total = -1;
    long resident = -1;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident;
}

} // namespace

TEST_F(FullDisk, FailsThePipelineWithAReason) {
    const TempFolder folder;
    folder.Write("in", std::string(3 * 1024 * 1024, 'x'));
    const std::string target = disk.Path("out");
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
        EXPECT_THAT(program.Err(), HasSubstr("No space left on device"));
        EXPECT_THAT(program.Err(),
                    HasSubstr("d.ini:14: [writer] " + (next == "queue" ? next : "p") +
                              " shut down with fatal error: Failed to write file " + target + "\n"));
        unlink(target.c_str());
    }
}

TEST_F(FullDisk, LetsASinkGoOnWhenThereIsRoomAgain) {
    const ExpectNoBuffersLeft check;
    disk.Write("ballast", std::string(1024 * 1024, 'x'));
    const PluginPtr sink(new FileSink(TestConfig("sink", {{"filename", disk.Path("out")}})));
    const auto push = [&] { sink->GetSink()->PushBuffer(MakeBuffer("some bytes")); };
    EXPECT_EQ("Failed to write file " + disk.Path("out"), ThrownText(push));
    unlink(disk.Path("ballast").c_str());
    push();
    EXPECT_EQ("some bytes", disk.Read("out"));
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

// Rounds of everything that a process does with pipelines, one of them failing now and then. The queues may
// drop, since on a busy machine a thread may take longer to start than a producer waits.
class Soak : public testing::TestWithParam<int> {};

// Each part is a test of its own, so that they can run side by side.
INSTANTIATE_TEST_SUITE_P(Parts, Soak, testing::Range(0, 4));

TEST_P(Soak, StartsAndStopsManyTimesWithoutLeavingAnything) {
    constexpr int kPipelines = 24;
    const int rounds = kEmulated ? 12 : kSlowed ? 75 : 2500;
    const ExpectNoBuffersLeft check;
    const LogCapture log(quarn::core::LogLevel::Off); // The failures are wanted.
    std::string names = "p0";
    std::string groups;
    for (int number = 0; number != kPipelines; ++number) {
        const std::string n = std::to_string(number);
        names += number != 0 ? ",p" + n : "";
        groups += "[p" + n + "]\nt.pipeline.head=s" + n + "\n[s" + n + "]\nt.plugin.type=endless\n" +
                  "t.pipeline.next=q" + n + "\n[q" + n +
                  "]\nt.plugin.type=queue\nallow.drop.on.write=1\nt.pipeline.next=t" + n + "\n[t" + n +
                  "]\nt.plugin.type=sink\n";
    }
    const IniFile ini = IniFile::FromText("[calvane]\nt.pipelines=" + names + "\n" + groups);
    const auto round = [&](int number) {
        TestFactory factory;
        PipelineManager manager(&factory, false);
        CalvaneEnv env(manager.GetReporter(), false);
        factory.makers["endless"] = [=](const auto& config) {
            const bool fails = number % 4 == 0 && config.GetPluginName() == "s0";
            return new TestSource(config.GetPluginName(), [=](Source& out, quarn::osa::TimeStruct& next) {
                if (fails) {
                    throw quarn::osa::Exception("wanted");
                }
                out.PushBuffer(MakeBuffer("x"));
                next = {0, 100};
                return true;
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
    for (int number = 0; number != 20; ++number) {
        round(number);
    }
    const auto descriptors = CountEntries("/proc/self/fd");
    const long pages = ResidentPages();
    for (int number = 0; number < rounds; ++number) {
        round(number);
    }
    EXPECT_TRUE(WaitUntil([] { return CountEntries("/proc/self/task") <= 2; })); // One may be a sanitizer's.
    EXPECT_EQ(descriptors, CountEntries("/proc/self/fd"));
    if (!kSlowed) { // Sanitizers keep what was freed for a while, and an emulator counts its own memory.
        EXPECT_LT(ResidentPages(), pages + 1024);
    }
}
