#include <filesystem>
#include <sstream>

#include "recorder/RecorderFixture.h"

using testing::HasSubstr;

namespace {

const std::string kExamples = CALVANE_SOURCE_DIR "/examples/";

/// Runs the descriptions of examples/ in the recorder's daemon.
class MediaExampleTest : public RecorderTest {
protected:
    static std::string Read(const std::string& path) {
        std::ostringstream content;
        content << std::ifstream(path).rdbuf();
        return content.str();
    }
    void MakeClip(const std::string& name, int seconds) const {
        Program make(
            "/usr/bin/ffmpeg",
            {"-v", "error", "-f", "lavfi", "-i", "testsrc=rate=30:size=320x180", "-f", "lavfi", "-i", "sine",
             "-t", std::to_string(seconds), "-c:v", "libx264", "-g", "15", "-c:a", "aac", name},
            folder.Path());
        EXPECT_EQ(make.Wait(), 0) << make.Err();
    }
    /// Records until there is so much of both, and stops.
    void RecordUntil(std::size_t videoRecords, std::size_t audioRecords) {
        EXPECT_TRUE(WaitUntil(
            [&] { return CountRecords("video") >= videoRecords && CountRecords("audio") >= audioRecords; }));
        ExpectWidth();
        EXPECT_EQ(Stop(), 0);
        ExpectStoreIsGood();
    }
    void ExpectWidth() const { EXPECT_THAT(Ask({"attributes"}).out, HasSubstr(std::to_string(width))); }

    int width = 1280;
};

} // namespace

TEST_F(MediaExampleTest, RecordsThePictureAndTakesSnapshots) {
    // The one without snapshots is the same but for them.
    StartAndWait(kExamples + "snapshots.ini");
    RecordUntil(60, 60);
    EXPECT_THAT(folder.Read("latest.jpg"), testing::StartsWith("\xff\xd8\xff"));
    Program probe("/usr/bin/ffprobe",
                  {"-v", "error", "-show_entries", "stream=width,height", "-of", "csv=p=0", "latest.jpg"},
                  folder.Path());
    EXPECT_EQ(probe.Wait(), 0);
    EXPECT_EQ(probe.Out(), "640,360\n");
}

TEST_F(MediaExampleTest, RecordsAFileAgainAndAgain) {
    width = 320;
    MakeClip("clip.mp4", 1);
    StartAndWait(kExamples + "file-loop.ini");
    RecordUntil(70, 70);
}

// Which goes away in between. Its pictures come in another order than they are shown in, and without decode times.
TEST_F(MediaExampleTest, RecordsACameraOverRtsp) {
    width = 320;
    MakeClip("clip.mp4", 60);
    const auto startCamera = [&](const std::string& port) {
        auto camera = std::make_unique<Program>(
            "/usr/bin/python3",
            std::vector<std::string>{"-B", CALVANE_SOURCE_DIR "/tests/media/rtsp_camera.py", "clip.mp4",
                                     port},
            folder.Path());
        EXPECT_TRUE(WaitUntil([&] { return !camera->Out().empty(); })) << camera->Err();
        return camera;
    };
    auto camera = startCamera("0");
    const std::string url = camera->Out().substr(0, camera->Out().find('\n'));
    std::string description = Read(kExamples + "rtsp-camera.ini");
    const std::string original = "rtsp://127.0.0.1:8554/camera";
    ASSERT_THAT(description, HasSubstr(original));
    description.replace(description.find(original), original.size(), url);
    StartAndWait(folder.Write("camera.ini", description));
    EXPECT_TRUE(WaitUntil([&] { return CountRecords("video") >= 60; }));
    camera->Signal(SIGKILL);
    camera->Wait();
    const std::size_t before = CountRecords("video");
    const std::size_t port = url.rfind(':') + 1;
    camera = startCamera(url.substr(port, url.find('/', port) - port));
    RecordUntil(before + 60, 60);
    EXPECT_THAT(recorder->Err(), HasSubstr("is lost"));
    // By itself: an emulated program starts none that needs the emulator, too.
    Program exported("calvane-recording-media", {"export", "--card", card, "whole.mkv"}, folder.Path());
    EXPECT_EQ(exported.Wait(), 0) << exported.Err();
    Program probe("/usr/bin/ffprobe", {"-v", "warning", "-show_packets", "whole.mkv"}, folder.Path());
    EXPECT_EQ(probe.Wait(), 0);
    EXPECT_EQ(probe.Err(), "");
}

TEST_F(MediaExampleTest, AreSound) {
    for (const auto& entry : std::filesystem::directory_iterator(kExamples)) {
        if (entry.path().extension() == ".ini") {
            Program check("calvane", {"check", entry.path()}, folder.Path());
            EXPECT_EQ(check.Wait(), 0) << check.Err();
            EXPECT_THAT(check.Out() + check.Err(), HasSubstr(": 0 errors, 0 warnings"));
        }
    }
}
