#include <gtest/gtest.h>

#include "calvane/plugins/FileSink.h"
#include "calvane/plugins/FileSource.h"
#include "calvane/plugins/OverwriteFileSink.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/LogCapture.h"
#include "support/TempFolder.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;

namespace {

using Settings = std::map<std::string, std::string>;
using Sizes = std::vector<size_t>;

class FilePluginTest : public testing::Test {
protected:
    /// The sizes of the buffers that a source pushes in at most `calls` calls; the last call of a source that
    /// ends is told by a final 0.
    Sizes Read(Settings settings, int calls = 100) {
        Sizes sizes;
        std::string content;
        const PluginPtr source(new FileSource(&env, TestConfig("source", std::move(settings))));
        const PluginPtr sink(new TestSink("sink", [&](Buffer& buffer) {
            sizes.push_back(buffer.GetLength());
            content += TextOf(buffer);
        }));
        source->ConnectToSink(sink->GetSink());
        quarn::osa::TimeStruct next;
        bool more = true;
        for (int call = 0; more && call != calls; ++call) {
            more = source->GenerateBuffer(next);
        }
        if (!more) {
            sizes.push_back(0);
        }
        last = content;
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
    const ExpectNoBuffersLeft check;
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
    const std::string empty = folder.Write("empty", "");
    EXPECT_EQ((Sizes{0}), Read({{"filename", empty}}));
    EXPECT_EQ((Sizes{}), Read({{"filename", empty}, {"loop", "1"}}, 10));
}

TEST_F(FilePluginTest, SourceSaysWhatIsWrongWithItsSettings) {
    const std::string file = folder.Write("in", "x");
    const auto refusal = [this](const Settings& settings) { return ThrownText([&] { Read(settings); }); };
    EXPECT_EQ("source: Invalid blocksize", refusal({{"filename", file}, {"buffer.blocksize.bytes", "0"}}));
    EXPECT_EQ("source: Invalid buffer.maxcount", refusal({{"filename", file}, {"buffer.maxcount", "0"}}));
    EXPECT_EQ("source: You must provide a valid filename setting", refusal({}));
    EXPECT_EQ("source: Failed to open file " + folder.Path("none"),
              refusal({{"filename", folder.Path("none")}}));
    EXPECT_EQ("source: Failed to open file " + folder.Path(), refusal({{"filename", folder.Path()}}));
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
    Write<FileSink>({{"filename", folder.Path("out")}}, {""});
    EXPECT_EQ("", folder.Read("out"));
}

TEST_F(FilePluginTest, SinksSayWhatIsWrongWithTheirSettings) {
    EXPECT_EQ("sink: You must provide a valid setting for filename",
              ThrownText([&] { Write<FileSink>({}, {}); }));
    EXPECT_EQ("Invalid openmode: Append ", ThrownText([&] {
                  Write<FileSink>({{"filename", "x"}, {"openmode", "Append "}}, {});
              }));
    EXPECT_EQ("sink: You must provide a valid OutputFileName setting",
              ThrownText([&] { Write<OverwriteFileSink>({}, {}); }));
}

TEST_F(FilePluginTest, SinkTriesAgainToOpenItsFile) {
    const std::string path = folder.Path("later/out");
    const PluginPtr sink(new FileSink(TestConfig("sink", {{"filename", path}})));
    const auto push = [&] { sink->GetSink()->PushBuffer(MakeBuffer("x")); };
    EXPECT_EQ("Failed to open file " + path, ThrownText(push));
    std::filesystem::create_directory(folder.Path("later"));
    push();
    EXPECT_EQ("x", folder.Read("later/out"));
}

TEST_F(FilePluginTest, OverwritingSinkKeepsTheLatestWholeBuffer) {
    const quarn::core::LogCapture log;
    const Settings settings{{"filename", folder.Path("out")}};
    Write<OverwriteFileSink>(settings, {"first", "2nd"});
    EXPECT_EQ("2nd", folder.Read("out"));
    EXPECT_FALSE(folder.Has("out.tmp"));
    EXPECT_TRUE(log.Contains("Created new OverwriteFileSink for file " + folder.Path("out") +
                             ", using temp file " + folder.Path("out") + ".tmp"));
    // Neither a file that cannot be written nor one that cannot be moved is an error.
    Write<OverwriteFileSink>({{"filename", folder.Path("out")}, {"temp.filename", folder.Path("no/tmp")}},
                             {"lost"});
    std::filesystem::create_directory(folder.Path("taken"));
    Write<OverwriteFileSink>({{"filename", folder.Path("taken")}, {"temp.filename", folder.Path("t")}},
                             {"x"});
    EXPECT_EQ("2nd", folder.Read("out"));
    EXPECT_EQ("x", folder.Read("t"));
}
