#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/Emulation.h"
#include "support/ProgramFixture.h"
#include "support/WaitUntil.h"

using testing::HasSubstr;

namespace {

using ProgramTest = ProgramFixture;

const std::string kCopy =
    "[calvane]\nt.pipelines = copy\n[copy]\nt.pipeline.head = reader\n[reader]\nt.plugin.type = FileSource\n"
    "t.pipeline.next = writer\nfilename = in\n[writer]\nt.plugin.type = FileSink\nfilename = ";

const std::string kEndless =
    "[calvane]\nt.pipelines = p\n[p]\nt.pipeline.head = reader\n[reader]\nt.plugin.type = FileSource\n"
    "t.pipeline.next = queue\nfilename = in\nloop = 1\n[queue]\nt.plugin.type = QueuePlugin\n"
    "t.pipeline.next = writer\n[writer]\nt.plugin.type = OverwriteFileSink\nfilename = latest\n";

const std::string kGoodModule = CALVANE_TEST_MODULE_DIR "/GoodModule.so";

// Lines of the log begin with the year.
std::string WithoutLog(const std::string& text) {
    std::istringstream lines(text);
    std::string rest;
    for (std::string line; std::getline(lines, line);) {
        rest += line.compare(0, 2, "20") == 0 ? "" : line + "\n";
    }
    return rest;
}

} // namespace

TEST_F(ProgramTest, CopiesAFileAndSaysHowItEnded) {
    const std::string content(100000, 'x');
    folder.Write("in", content);
    EXPECT_EQ(0, Calvane("run", kCopy + "out\n")) << err;
    EXPECT_EQ("pipeline copy: out of data\n", out);
    EXPECT_EQ("", err);
    EXPECT_EQ(content, folder.Read("out"));
}

TEST_F(ProgramTest, NamesFileLineGroupAndKeyOfABadDescription) {
    EXPECT_EQ(2, Calvane("run", kCopy + "out\nno equals sign\n"));
    EXPECT_THAT(err, testing::StartsWith("d.ini:12: "));
    EXPECT_EQ(2, Calvane("run", "[calvane]\nt.pipelines = a\n[a]\n"));
    EXPECT_EQ("d.ini:3: [a] t.pipeline.head: Missing t.pipeline.head setting in a group\n", err);
    // What shows only when plugins are made.
    EXPECT_EQ(2, Calvane("run", kCopy + "out\n"));
    EXPECT_THAT(err, HasSubstr("d.ini:8: [reader] filename: reader: Failed to open file in\n"));
    EXPECT_EQ(2, Calvane({"run", "none.ini"}));
    EXPECT_THAT(err, HasSubstr("none.ini: No such file"));
}

TEST_F(ProgramTest, ChecksWithoutMakingAnythingUnlessTold) {
    const std::string unknown =
        "d.ini:12: warning: [writer] filenam: Setting filenam is unknown (did you mean \"filename\"?)\n";
    EXPECT_EQ(0, Calvane("check", kCopy + "out\nfilenam = x\n"));
    EXPECT_EQ("d.ini: 0 errors, 1 warning\n" + unknown, out + err);
    EXPECT_EQ(2, Calvane({"check", "--build", "d.ini"}));
    EXPECT_EQ("d.ini: 1 error, 1 warning\n", out);
    EXPECT_EQ(unknown + "d.ini:8: [reader] filename: reader: Failed to open file in\n", err);
    folder.Write("in", "");
    EXPECT_EQ(0, Calvane({"check", "--build", "d.ini"}));
    EXPECT_EQ("d.ini: 0 errors, 1 warning\n" + unknown, out + err); // Not once more as never used.
    EXPECT_FALSE(folder.Has("out"));

    // Of a type that declares nothing only the plugin itself knows what it reads.
    const std::string invert = std::string(kCopy).replace(kCopy.find("= writer"), 8, "= invert") +
                               "out\n[invert]\n"
                               "t.plugin.type = Invert\nt.plugin.module = " +
                               kGoodModule + "\nt.pipeline.next = writer\nmsk = 2\n";
    EXPECT_EQ(0, Calvane("check", invert));
    EXPECT_EQ("d.ini: 0 errors, 0 warnings\n", out + err);
    EXPECT_EQ(0, Calvane({"check", "--build", "d.ini"}));
    EXPECT_EQ("d.ini:16: warning: [invert] msk: Setting msk was never used\n", err);
}

TEST_F(ProgramTest, AddsToAFailureWhatItsTextDoesNotSay) {
    folder.Write("in", "x");
    const std::string split = "FileSource filename=in ! Split name=s t.plugin.module=" + kGoodModule;
    const std::string sink = " ! FileSink name=sink filename=out";
    EXPECT_EQ(2, Calvane({"launch", split + " picky=1  s.a" + sink}));
    EXPECT_EQ(
        "<launch>:10: [FileSource0] t.pipeline.next: Incompatible formats\n"
        "<launch>:10: [FileSource0] t.pipeline.next: plugin s requires width = 640, plugin FileSource0 "
        "offers "
        "no "
        "width\n",
        WithoutLog(err));
    EXPECT_EQ(2, Calvane({"launch", split + "  s.c" + sink}));
    EXPECT_THAT(err, HasSubstr("[s] t.pipeline.next.c: No source named c exists in collection\n"));
    EXPECT_THAT(err, HasSubstr("[s] t.pipeline.next.c: plugin s has these outputs: a, b\n"));
    EXPECT_EQ(0, Calvane({"launch", split + "  s.b" + sink, "--stats", "60"})) << err;
    EXPECT_THAT(out, HasSubstr("plugin s: in "));
    EXPECT_THAT(out, HasSubstr("in all 1 and 1B; out b "));
}

TEST_F(ProgramTest, NamesThePluginAndTheThreadOfACrash) {
    SKIP_WHEN_EMULATED("the emulator reports the signal in its own way");
    folder.Write("in", "x");
    for (const std::string thread : {"copy", "queue"}) {
        Calvane("run", std::string(kCopy).replace(kCopy.find("= writer"), 8,
                                                  thread == "copy" ? "= bomb" : "= queue") +
                           "out\n[queue]\nt.plugin.type = QueuePlugin\nt.pipeline.next = bomb\n[bomb]\n"
                           "t.plugin.type = Crasher\nt.plugin.module = " +
                           kGoodModule + "\n");
        EXPECT_THAT(err, HasSubstr("calvane: SIGSEGV in plugin bomb on thread " + thread + " ("));
    }
    // A signal from outside has its effect as well.
    folder.Write("d.ini", kEndless);
    folder.Write("in", std::string(5000, 'x'));
    Program program("calvane", {"run", "d.ini"}, folder.Path());
    ASSERT_TRUE(WaitUntil([this] { return folder.Has("latest"); }));
    program.Signal(SIGABRT);
    EXPECT_EQ(128 + SIGABRT, program.Wait());
    EXPECT_THAT(program.Err(), HasSubstr("calvane: SIGABRT"));
}

// What watches them takes its place on the stack, too.
TEST_F(ProgramTest, RunsTheLongestLineThatIsAllowed) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer gives up where a thread holds more than 64 locks";
#endif
    folder.Write("in", "content");
    std::string line = "FileSource filename=in";
    for (int i = 0; i != 998; ++i) {
        line += " ! IdentityPlugin";
    }
    EXPECT_EQ(
        0, Calvane({"launch", line + " ! FileSink filename=out", "--trace", "trace.json", "--stats", "60"}))
        << err;
    EXPECT_EQ("content", folder.Read("out"));
    EXPECT_EQ(2, Calvane({"launch", line + " ! IdentityPlugin ! FileSink filename=out"}));
    EXPECT_THAT(err, HasSubstr("More than 1000 plugins follow one another\n"));
}

TEST_F(ProgramTest, RunsALineOfPlugins) {
    folder.Write("in", "content");
    const std::string line =
        "FileSource filename=in name=r ! QueuePlugin ! FileSink filename=\"a b\"  r. ! FileSink "
        "filename=c  FileSource filename=in ! OverwriteFileSink filename=d";
    EXPECT_EQ(0, Calvane({"launch", line})) << err;
    EXPECT_EQ("contentcontentcontent", folder.Read("a b") + folder.Read("c") + folder.Read("d"));
    EXPECT_EQ(0, Calvane({"launch", "--ini", line}));
    folder.Write("d.ini", out);
    folder.Write("d.ini", out + "[FileSink0.x]\n"); // A group whose name goes on behind that of another.
    EXPECT_EQ(0,
              Calvane({"run", "d.ini", "--set", "FileSink0.filename=e", "--set", "FileSink0.x.filename=f"}))
        << err;
    EXPECT_EQ("content", folder.Read("e"));
    EXPECT_THAT(err, testing::Not(HasSubstr("x.filename")));
    const std::map<std::string, std::string> wrong{
        {"FileSource filename=in ! QueuPlugin",
         "<launch>:13: [QueuPlugin0] t.plugin.type: No registered plugin with type QueuPlugin (did you mean "
         "\"QueuePlugin\"?)\n"},
        {"FileSource filename=in !", "<launch>: a plugin type is missing behind a !\n"},
        {"FileSource filename=\"in", "<launch>: a double quote is not closed\n"},
        {"FileSource name=reader filename=in  raeder. ! FileSink filename=x",
         "<launch>: no plugin before is named raeder (did you mean \"reader\"?)\n"},
        {"filename=in FileSource", "<launch>: expected a plugin type before \"filename=in\"\n"}};
    for (const auto& [mistake, message] : wrong) {
        EXPECT_EQ(2, Calvane({"launch", mistake}));
        EXPECT_EQ(message, err);
    }
    EXPECT_EQ(2, Calvane({"run", "d.ini", "--set", "FileSnk0.filename=e"}));
    EXPECT_EQ("--set FileSnk0.filename=e: d.ini has no group FileSnk0 (did you mean \"FileSink0\"?)\n", err);
    EXPECT_EQ(2, Calvane({"check", "d.ini", "--set", "r.loop=often"}));
    EXPECT_THAT(err, HasSubstr("[r] loop: \"often\" is neither 0 (off) nor 1 (on)\n"));
}

TEST_F(ProgramTest, RefusesBadCommandLinesInOneLine) {
    const std::string wrong[] = {"frobnicate",
                                 "run",
                                 "run d.ini --frob",
                                 "run d.ini --log-file x --syslog",
                                 "run d.ini --log nonsense",
                                 "run d.ini --log-file no/such/folder"};
    folder.Write("d.ini", "");
    for (const std::string& line : wrong) {
        std::istringstream words(line);
        EXPECT_EQ(2, Calvane({std::istream_iterator<std::string>(words), {}}));
        EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
    }
    EXPECT_EQ(0, Calvane({"--version"}));
    EXPECT_EQ("calvane 1.3.0\n", out);
}

TEST_F(ProgramTest, FailsWithTheFirstFailureOnStandardError) {
    folder.Write("in", "x");
    EXPECT_EQ(1, Calvane("run", kCopy + "no/such/folder\n"));
    EXPECT_EQ("pipeline copy: failed: Failed to open file no/such/folder\n", out);
    // Once, with the place of the plugin that failed.
    EXPECT_EQ("d.ini:9: [writer] copy shut down with fatal error: Failed to open file no/such/folder\n", err);
}

TEST_F(ProgramTest, StopsInOrderOnASignalAndAtOnceOnTheSecond) {
    folder.Write("in", std::string(5000, 'x'));
    folder.Write("d.ini", kEndless);
    for (const int signal : {SIGINT, SIGTERM}) {
        Program program("calvane", {"run", "d.ini"}, folder.Path());
        ASSERT_TRUE(WaitUntil([this] { return folder.Has("latest"); }));
        program.Signal(signal);
        EXPECT_EQ(0, program.Wait()) << program.Err();
        EXPECT_EQ("pipeline p: stopped\n", program.Out());
        unlink(folder.Path("latest").c_str());
    }
    // A sink that never returns: only the second signal helps.
    ASSERT_EQ(0, mkfifo(folder.Path("pipe").c_str(), 0600));
    folder.Write("d.ini", kCopy + "pipe\n");
    Program stuck("calvane", {"run", "d.ini", "--log", "information", "--log-file", "log"}, folder.Path());
    ASSERT_TRUE(
        WaitUntil([this] { return folder.Read("log").find("Opening file pipe") != std::string::npos; }));
    stuck.Signal(SIGTERM);
    usleep(100000);
    stuck.Signal(SIGTERM);
    EXPECT_EQ(128 + SIGTERM, stuck.Wait());
}

TEST_F(ProgramTest, NeverHidesWhatAQueueDrops) {
    folder.Write("in", std::string(10000, 'x')); // Ten blocks.
    const std::string dropping = std::string(kCopy).replace(kCopy.find("= writer"), 8, "= queue") +
                                 "pipe\n[queue]\nt.plugin.type = QueuePlugin\nqueue.length = 1\n"
                                 "allow.drop.on.write = 1\nt.pipeline.next = writer\n";
    // The writer waits for a reader until all buffers have come: it has one, at most one is queued.
    ASSERT_EQ(0, mkfifo(folder.Path("pipe").c_str(), 0600));
    folder.Write("d.ini", dropping);
    Program program("calvane",
                    {"run", "d.ini", "--stats", "60", "--log", "copy=information", "--log-file", "log"},
                    folder.Path());
    ASSERT_TRUE(
        WaitUntil([this] { return folder.Read("log").find("exiting normally") != std::string::npos; }));
    const size_t taken = folder.Read("pipe").size() / 1000;
    EXPECT_EQ(0, program.Wait()) << program.Err();
    out = program.Out();
    const std::string dropped = std::to_string(10 - taken);
    EXPECT_THAT(out, HasSubstr("pipeline copy: out of data\nqueue queue: dropped " + dropped + " buffers\n"));
    EXPECT_THAT(out, HasSubstr(" plugin reader: out "));
    EXPECT_THAT(out,
                HasSubstr(" queue 0 of 1, at most 1; dropped " + dropped + ", in all " + dropped + "\n"));
    EXPECT_EQ(2, Calvane({"run", "d.ini", "--stats", "0"}));
}

TEST_F(ProgramTest, TracesEveryPushByThreadAndPlugin) {
    folder.Write("in", std::string(9000 * 1024, 'x'));
    const std::string queued = std::string(kCopy).replace(kCopy.find("= writer"), 8, "= queue") +
                               "out\n[queue]\nt.plugin.type = QueuePlugin\nt.pipeline.next = writer\n";
    folder.Write("d.ini", queued);
    ASSERT_EQ(0, Calvane({"run", "d.ini", "--trace", "trace.json"})) << err;
    std::map<std::string, std::string> threads;
    std::map<std::string, int> pushes; // By thread, sender, receiver and bytes.
    std::map<std::string, double> ends;
    for (const auto& event : nlohmann::json::parse(folder.Read("trace.json"))) {
        if (event["name"] == "thread_name") {
            threads[event["tid"].dump()] = event["args"]["name"];
        } else if (event.value("cat", "") == "push") {
            ++pushes[event["tid"].dump() + " " + event["args"]["from"].get<std::string>() + ">" +
                     event["name"].get<std::string>() + " " + event["args"]["bytes"].dump()];
            double& end = ends[event["tid"].dump()];
            EXPECT_GE(event["ts"].get<double>() + 0.001, end); // One after the other, in this description.
            end = event["ts"].get<double>() + event["dur"].get<double>();
        }
    }
    std::map<std::string, int> named;
    for (const auto& [push, count] : pushes) {
        named[threads[push.substr(0, push.find(' '))] + push.substr(push.find(' '))] = count;
    }
    EXPECT_EQ(
        (std::map<std::string, int>{{"copy reader>queue 1024", 9000}, {"queue queue>writer 1024", 9000}}),
        named);
    EXPECT_EQ(2, Calvane({"run", "d.ini", "--trace", "no/such/folder"}));
    EXPECT_EQ("Cannot create the trace file no/such/folder: No such file or directory\n", err);
    EXPECT_EQ(1, Calvane({"run", "d.ini", "--trace", "/dev/full"}));
    EXPECT_THAT(err, HasSubstr("The trace file /dev/full is incomplete: No space left on device\n"));
}

TEST_F(ProgramTest, RunsTheDemonstration) {
    SKIP_WHEN_EMULATED("the script would have to know of the emulator");
    setenv("PATH", (std::string(CALVANE_BIN_DIR) + ":" + getenv("PATH")).c_str(), 1);
    Program demo(CALVANE_SOURCE_DIR "/examples/run-demo.sh", {folder.Path("demo")}, folder.Path());
    EXPECT_EQ(0, demo.Wait()) << demo.Out() << demo.Err();
    EXPECT_THAT(demo.Out(), HasSubstr("All copies are right."));
}
