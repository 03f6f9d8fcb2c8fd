#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

#include "recorder/RecorderFixture.h"
#include "support/Emulation.h"

namespace {

class KilledRecorderTest : public RecorderTest {
protected:
    std::string Run(const std::string& program, const std::string& arguments) const {
        std::istringstream words(arguments);
        Program run(program, {std::istream_iterator<std::string>(words), {}}, folder.Path());
        EXPECT_EQ(run.Wait(), 0) << arguments << "\n" << run.Err();
        return run.Out();
    }
    /// A hash of each packet.
    std::vector<std::string> PacketsOf(const std::string& file, const std::string& stream) const {
        std::istringstream lines(
            Run("/usr/bin/ffmpeg", "-v error -i " + file + " -map 0:" + stream + " -c copy -f framemd5 -"));
        std::vector<std::string> packets;
        for (std::string line; std::getline(lines, line);) {
            if (line[0] != '#') {
                packets.push_back(line.substr(line.rfind(' ') + 1));
            }
        }
        return packets;
    }
};

} // namespace

TEST_F(KilledRecorderTest, BothPiecesOfItsRecordingAreExportedWithoutAChange) {
    Run("/usr/bin/ffmpeg",
        "-v error -f lavfi -i testsrc=rate=30:size=192x108 -f lavfi -i sine=sample_rate=48000 -t 30 "
        "-c:v libx264 -preset ultrafast -bf 2 -g 15 -c:a aac camera.mkv");
    const std::string description = folder.Write("camera.ini", R"([calvane]
t.pipelines = p
[p]
t.pipeline.head = camera
[camera]
t.plugin.type = MediaSource
t.plugin.module = media.so
t.pipeline.next.video = video
t.pipeline.next.audio = audio
url = camera.mkv
[video]
t.plugin.type = RecordingSink
t.plugin.module = recording.so
track = video
[audio]
t.plugin.type = RecordingSink
t.plugin.module = recording.so
track = audio
)");
    StartAndWait(description);
    ASSERT_TRUE(WaitUntil([&] { return CountRecords("video") > 60; }));
    recorder->Signal(SIGKILL);
    recorder->Wait();
    StartAndWait(description);
    const std::size_t first = CountRecords("video");
    EXPECT_GT(first, 30U);
    ASSERT_TRUE(WaitUntil([&] { return CountRecords("video") > first + 45; }));
    EXPECT_EQ(Stop(), 0);
    Run(kEmulated ? "calvane-recording-media" : "calvane-recording", "export --card card both.mkv");
    for (const std::string stream : {"v", "a"}) {
        const std::vector<std::string> sent = PacketsOf("camera.mkv", stream);
        const std::vector<std::string> got = PacketsOf("both.mkv", stream);
        const auto killed = std::mismatch(got.begin(), got.end(), sent.begin(), sent.end());
        const auto ended = std::mismatch(killed.first, got.end(), sent.begin(), sent.end());
        EXPECT_GT(killed.first - got.begin(), 30) << stream;
        EXPECT_GT(got.end() - killed.first, 30) << stream;
        EXPECT_TRUE(ended.first == got.end())
            << stream << ": packet " << ended.first - got.begin() << " of " << got.size();
    }
}
