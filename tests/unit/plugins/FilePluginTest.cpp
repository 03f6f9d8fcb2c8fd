#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "calvane/plugins/FileSink.h"
#include "calvane/plugins/FileSource.h"
#include "calvane/plugins/OverwriteFileSink.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/osa/Thread.h"
#include "support/TempFolder.h"
#include "support/TestPlugins.h"
#include "support/WaitUntil.h"

using namespace quarn::calvane;

namespace {

using Sizes = std::vector<size_t>;

class FilePluginTest : public testing::Test {
protected:
    /// The sizes of the buffers that a source pushes in at most 10 calls; a final 0 when it came to its end.
    Sizes Read(const Settings& settings) {
        Sizes sizes;
        last.clear();
        const PluginPtr source(new FileSource(&env, TestConfig("source", settings)));
        const PluginPtr sink(new TestSink("sink", [&](Buffer& buffer) {
            sizes.push_back(buffer.GetLength());
            last += TextOf(buffer);
        }));
        source->ConnectToSink(sink->GetSink());
        quarn::osa::TimeStruct next;
        for (int call = 0; call != 10; ++call) {
            if (!source->GenerateBuffer(next)) {
                sizes.push_back(0);
                break;
            }
        }
        return sizes;
    }
    template <typename SinkPlugin>
    void Write(const Settings& settings, const std::vector<std::string>& buffers) {
        const PluginPtr sink(new SinkPlugin(TestConfig("sink", settings)));
        for (const std::string& buffer : buffers) {
            sink->GetSink()->PushBuffer(MakeBuffer(buffer));
        }
    }

    TempFolder folder;
    CalvaneEnv env;
    std::string last;
    ExpectNoBuffersLeft check;
};

} // namespace

TEST_F(FilePluginTest, SourceReadsBlocksToTheEndOrRoundAndRound) {
    std::string content;
    for (int i = 0; i != 2500; ++i) {
        content += static_cast<char>(i * 7);
    }
    const std::string file = folder.Write("in", content);
    EXPECT_EQ((Sizes{1024, 1024, 452, 0}), Read({{"filename", file}}));
    EXPECT_EQ(content, last);
    EXPECT_EQ((Sizes{1024, 1024, 452, 1024, 1024, 0}),
              Read({{"filename", file}, {"loop", "1"}, {"buffer.total", "5"}}));
    EXPECT_EQ((Sizes{0}), Read({{"filename", file}, {"buffer.total", "0"}}));
    EXPECT_EQ((Sizes{2500, 0}), Read({{"filename", file}, {"buffer.blocksize.bytes", "100000"}}));
    EXPECT_EQ((Sizes{}), Read({{"filename", folder.Write("empty", "")}, {"loop", "1"}}));
}

TEST_F(FilePluginTest, SourceHasAsManyBuffersUnderWayAsItsPoolHolds) {
    std::atomic<int> underWay{0};
    std::vector<std::unique_ptr<Buffer>> held;
    held.reserve(4); // Filled on one thread and emptied on the other.
    const PluginPtr source(
        new FileSource(&env, TestConfig("source", {{"filename", folder.Write("in", "abcd")},
                                                   {"buffer.blocksize.bytes", "1"},
                                                   {"buffer.maxcount", "3"}})));
    const PluginPtr sink(new TestSink("sink", [&](Buffer& buffer) {
        held.emplace_back(buffer.Duplicate());
        ++underWay;
    }));
    source->ConnectToSink(sink->GetSink());
    std::thread reader([&] {
        for (quarn::osa::TimeStruct next; source->GenerateBuffer(next);) {
        }
    });
    EXPECT_TRUE(WaitUntil([&] { return underWay == 3; }));
    quarn::osa::Thread::CurrentThread::MicroSleep(20000); // Should there be a fourth block, it comes now.
    EXPECT_EQ(3, underWay);
    // Should there be fewer, the reader waits for ever: nothing is held back any more.
    for (int freed = 0; freed != 3; ++freed) {
        EXPECT_TRUE(WaitUntil([&] { return underWay > freed; }));
        held[static_cast<size_t>(freed)].reset();
    }
    reader.join();
    EXPECT_EQ(4, underWay);
}

TEST_F(FilePluginTest, SaysWhatIsWrongWithASetting) {
    const auto refusal = [this](Settings settings) {
        settings.emplace("filename", folder.Write("in", "x"));
        return ThrownText([&] { Read(settings); });
    };
    EXPECT_EQ("source: Invalid blocksize", refusal({{"buffer.blocksize.bytes", "0"}}));
    EXPECT_EQ("source: You must provide a valid filename setting", refusal({{"filename", ""}}));
    EXPECT_EQ("source: Failed to open file " + folder.Path(), refusal({{"filename", folder.Path()}}));
    EXPECT_EQ("Invalid openmode: Append ", ThrownText([&] {
                  Write<FileSink>({{"filename", "x"}, {"openmode", "Append "}}, {});
              }));
}

TEST_F(FilePluginTest, SinkWritesTheBuffersOfItsRange) {
    const auto written = [this](Settings settings) {
        settings["filename"] = folder.Path("out");
        Write<FileSink>(settings, {"1", "2", "3", "4", "5", "6", "7"});
        return folder.Has("out") ? folder.Read("out") : "no file";
    };
    EXPECT_EQ("no file", written({{"start.count", "5"}, {"end.count", "2"}}));
    EXPECT_EQ("34", written({{"start.count", "2"}, {"end.count", "5"}}));
    EXPECT_EQ("1234567", written({{"start.count", "3"}, {"end.count", "3"}}));
    EXPECT_EQ("12345671234567", written({{"openmode", "APPEND"}}));
    EXPECT_EQ("1234567", written({{"openmode", "Truncate"}}));
}

TEST_F(FilePluginTest, SinkClosesItsFileBehindItsRange) {
    const auto isOpen = [this] {
        const std::filesystem::directory_iterator descriptors("/proc/self/fd");
        return std::any_of(begin(descriptors), end(descriptors), [this](const auto& descriptor) {
            std::error_code gone; // That of the iterator itself, in the end.
            if (std::filesystem::read_symlink(descriptor, gone) != folder.Path("out")) {
                return false;
            }
            // Programs that the process starts do not get it.
            EXPECT_EQ(FD_CLOEXEC, fcntl(std::stoi(descriptor.path().filename()), F_GETFD));
            return true;
        });
    };
    const PluginPtr sink(new FileSink(
        TestConfig("sink", {{"filename", folder.Path("out")}, {"start.count", "0"}, {"end.count", "2"}})));
    for (const bool open : {true, true, false}) {
        sink->GetSink()->PushBuffer(MakeBuffer("x"));
        EXPECT_EQ(open, isOpen());
    }
}

// A signal cuts a write to a full pipe short, or off before its first byte.
TEST_F(FilePluginTest, SinkWritesAllThoughSignalsInterruptIt) {
    const std::string pipe = folder.Path("out");
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    const int end = open(pipe.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(end, 0);
    struct sigaction interrupts {};
    struct sigaction before {};
    interrupts.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupts, &before);
    std::string sent(2'000'000, ' ');
    for (std::size_t i = 0; i != sent.size(); ++i) {
        sent[i] = static_cast<char>(i % 251);
    }
    std::string received;
    std::atomic<bool> written{false};
    std::thread reader([&, writer = pthread_self()] {
        std::array<char, 20'000> bytes{};
        for (bool isLast = false; !isLast;) {
            isLast = written;
            for (ssize_t count = 1; count > 0;) {
                pthread_kill(writer, SIGUSR1);
                count = read(end, bytes.data(), bytes.size());
                received.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    EXPECT_EQ("nothing was thrown", ThrownText([&] { Write<FileSink>({{"filename", pipe}}, {sent}); }));
    written = true;
    reader.join();
    sigaction(SIGUSR1, &before, nullptr);
    close(end);
    EXPECT_TRUE(received == sent) << received.size() << " bytes of " << sent.size();
}

TEST_F(FilePluginTest, OverwritingSinkKeepsTheLatestWholeBuffer) {
    const std::string out = folder.Path("out");
    Write<OverwriteFileSink>({{"filename", out}}, {"first", "2nd"});
    EXPECT_EQ("2nd", folder.Read("out"));
    EXPECT_FALSE(folder.Has("out.tmp"));
    // Neither a file that cannot be written nor one that cannot be moved is an error.
    Write<OverwriteFileSink>({{"filename", out}, {"temp.filename", folder.Path("no/tmp")}}, {"lost"});
    std::filesystem::create_directory(folder.Path("taken"));
    Write<OverwriteFileSink>({{"filename", folder.Path("taken")}, {"temp.filename", folder.Path("t")}},
                             {"x"});
    EXPECT_EQ("2nd", folder.Read("out"));
    EXPECT_EQ("x", folder.Read("t"));
    // Half of a buffer does not take the place of a whole one.
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{100, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    Write<OverwriteFileSink>({{"filename", out}}, {std::string(5000, 'x')});
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ("2nd", folder.Read("out"));
    EXPECT_TRUE(folder.Has("out.tmp")) << "nothing was written at all";
}
