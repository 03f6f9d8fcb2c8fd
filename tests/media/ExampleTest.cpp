#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

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

TEST_F(MediaExampleTest, RecordsACameraOverRtsp) {
    width = 320;
    MakeClip("clip.mp4", 60);
    const int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(holder, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(holder, reinterpret_cast<sockaddr*>(&address), &size);
    close(holder);
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/camera";
    // FFmpeg's programs can send RTSP only to somebody who listens. But for who calls whom it is the same.
    std::string description = Read(kExamples + "rtsp-camera.ini");
    const std::string original = "url = rtsp://127.0.0.1:8554/camera\n";
    ASSERT_THAT(description, HasSubstr(original));
    description.replace(description.find(original), original.size(),
                        "url = " + url + "\noptions = rtsp_flags=listen\n");
    StartAndWait(folder.Write("camera.ini", description));
    std::unique_ptr<Program> camera;
    EXPECT_TRUE(WaitUntil([&] {
        if (CountRecords("video") != 0) {
            return true;
        }
        // It has called too early, or not yet.
        camera = std::make_unique<Program>(
            "/usr/bin/ffmpeg",
            std::vector<std::string>{"-v", "error", "-re", "-i", "clip.mp4", "-c", "copy", "-rtsp_transport",
                                     "tcp", "-f", "rtsp", url},
            folder.Path());
        std::this_thread::sleep_for(std::chrono::seconds(2));
        return CountRecords("video") != 0;
    }));
    RecordUntil(60, 60);
    camera->Signal(SIGTERM);
    camera->Wait();
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
