#include "media/TestPicture.h"

#include <algorithm>

#include "MediaFixture.h"
#include "calvane/testing/PluginHarness.h"
#include "media/JpegSnapshot.h"
#include "media/PictureDrawing.h"
#include "quarn/core/LogCapture.h"
#include "support/ThrownText.h"

using namespace quarn::calvane;
using namespace quarn::calvane::testkit;
using calvane_media::JpegSnapshot;
using calvane_media::TestPicture;
using testing::HasSubstr;

namespace {

class TestPictureTest : public MediaTest {
protected:
    /// Three seconds of it.
    void Generate(Settings settings = {}) {
        settings.insert({{"realtime", "0"}, {"seconds", "3"}, {"width", "640"}, {"height", "360"}});
        PluginHarness harness(Construct<TestPicture>, settings);
        CollectingSink& videoSink = harness.ConnectOutput("video");
        CollectingSink& audioSink = harness.ConnectOutput("audio");
        harness.GenerateAll();
        video = videoSink.GetBuffers();
        audio = audioSink.GetBuffers();
    }
    static Buffer* MakeBufferOf(const ReceivedBuffer& received, const std::string& bytes) {
        Buffer* const buffer = MakeBuffer(bytes);
        buffer->GetFormat() = received.format;
        buffer->GetMetadata() = received.metadata;
        buffer->SetTimestamp(received.timestamp);
        return buffer;
    }
    std::vector<ReceivedBuffer> SnapshotsOf(const std::vector<ReceivedBuffer>& buffers,
                                            const Settings& settings) const {
        PluginHarness harness(Construct<JpegSnapshot>, settings);
        CollectingSink& output = harness.ConnectOutput();
        for (const ReceivedBuffer& buffer : buffers) {
            harness.Push(MakeBufferOf(buffer, buffer.bytes));
        }
        EXPECT_EQ(CountedMemory::alive, 0);
        return output.GetBuffers();
    }
    /// What stands in a line of a picture of TestPicture, as JPEG.
    std::string ReadLine(const std::string& jpeg, int line, int width, int height) const {
        folder.Write("p.jpg", jpeg);
        const std::string pixels = Run("ffmpeg", "-v error -i p.jpg -f rawvideo -pix_fmt gray -");
        EXPECT_EQ(pixels.size(), static_cast<std::size_t>(width * height));
        const int scale = width / (26 * calvane_media::kGlyphWidth);
        const auto isBright = [&](int column, int row) {
            const int x = (calvane_media::kGlyphWidth + column) * scale + scale / 2;
            const int y = (calvane_media::kGlyphHeight * (line + 1) + row) * scale + scale / 2;
            return static_cast<unsigned char>(pixels.at(static_cast<std::size_t>(y * width + x))) > 128;
        };
        std::string text;
        for (int place = 0; place != 24; ++place) {
            for (const char character : std::string("0123456789-.:TZ")) {
                bool matches = true;
                for (int dot = 0; dot != 5 * 7 && matches; ++dot) {
                    matches = isBright(place * calvane_media::kGlyphWidth + dot % 5, dot / 5) ==
                              calvane_media::HasDot(character, dot % 5, dot / 5);
                }
                text += matches ? std::string(1, character) : "";
            }
        }
        return text;
    }

    std::vector<ReceivedBuffer> video;
    std::vector<ReceivedBuffer> audio;
};

} // namespace

TEST_F(TestPictureTest, ShowsNumberAndTimeInEachCodec) {
    for (const char* codec : {"h264", "mpeg4", "mjpeg"}) {
        SCOPED_TRACE(codec);
        Generate({{"codec", codec}});
        EXPECT_EQ(InfoOf(video[0])["Codec"], codec);
        ASSERT_EQ(video.size(), 90U);
        // Two seconds in: of each codec a key frame.
        const std::vector<ReceivedBuffer> snapshots =
            SnapshotsOf(video, {{"interval.sec", "2"}, {"quality", "95"}});
        ASSERT_EQ(snapshots.size(), 2U);
        const ReceivedBuffer& second = snapshots[1];
        EXPECT_EQ(TimeOf(second), TimeOf(video[60]));
        EXPECT_EQ(second.format.GetInt("height"), 360);
        EXPECT_EQ(ReadLine(second.bytes, 0, 640, 360), "00000060");
        std::string time = ReadLine(second.bytes, 1, 640, 360);
        ASSERT_EQ(time.size(), 24U);
        EXPECT_EQ(std::stoll(time.substr(20, 3)), TimeOf(second) % 1'000'000 / 1000);
        std::tm parts{};
        ASSERT_NE(strptime(time.c_str(), "%Y-%m-%dT%H:%M:%S", &parts), nullptr);
        EXPECT_EQ(timegm(&parts), second.timestamp.seconds);
    }
}

TEST_F(TestPictureTest, IsWholeAndEndsNow) {
    const std::int64_t before = calvane_media::UtcNow();
    Generate();
    const std::int64_t after = calvane_media::UtcNow();
    EXPECT_THAT(TimeOf(video[0]) + 3'000'000, testing::AllOf(testing::Ge(before), testing::Le(after)));
    // 3 s of 48 kHz in packets of 1024, and the one that an AAC decoder needs in front.
    EXPECT_EQ(audio.size(), 3U * 48000 / 1024 + 2);
    EXPECT_EQ(TimeOf(video[0]) - TimeOf(audio[0]), 21'333);
    std::string stream;
    for (const ReceivedBuffer& buffer : video) {
        EXPECT_EQ(buffer.metadata.GetInt("KeyFrame") != 0, stream.empty() || (&buffer - &video[0]) % 30 == 0);
        stream += buffer.bytes;
    }
    const std::string parameters = InfoOf(video[0])["ExtraData"];
    folder.Write("parameters.b64", parameters);
    stream = Run("base64", "-d parameters.b64") + stream;
    folder.Write("video.h264", stream);
    EXPECT_THAT(
        Run("ffprobe",
            "-v error -count_frames -show_entries stream=nb_read_frames,width,height -of "
            "default=nw=1 video.h264"),
        testing::AllOf(HasSubstr("nb_read_frames=90"), HasSubstr("width=640"), HasSubstr("height=360")));
}

TEST_F(TestPictureTest, KeepsTakingSnapshotsAfterABadKeyFrame) {
    Generate();
    PluginHarness harness(Construct<JpegSnapshot>, {{"interval.sec", "0"}, {"width", "320"}});
    CollectingSink& output = harness.ConnectOutput();
    const quarn::core::LogCapture log(quarn::core::LogLevel::Warning);
    harness.Push(MakeBufferOf(video[0], "no picture"));
    Buffer* const unknown = MakeBufferOf(video[0], video[0].bytes);
    unknown->GetMetadata().SetValue("info", "");
    harness.Push(unknown);
    EXPECT_TRUE(output.GetBuffers().empty());
    harness.Push(MakeBufferOf(video[0], video[0].bytes));
    ASSERT_EQ(output.GetBuffers().size(), 1U);
    EXPECT_EQ(output.GetBuffers()[0].format.GetInt("width"), 320);
    const auto lines = log.GetLines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& line) { return line.text.rfind("No snapshot: ", 0) == 0; }),
              1); // The first of a row.
}

TEST_F(TestPictureTest, TakesSnapshotsThoughTheClockIsSetBack) {
    Generate();
    PluginHarness harness(Construct<JpegSnapshot>, {{"interval.sec", "3600"}});
    CollectingSink& output = harness.ConnectOutput();
    for (const int seconds : {0, 1, -3000, -2999}) {
        Buffer* const picture = MakeBufferOf(video[0], video[0].bytes);
        const auto moved = static_cast<unsigned int>(static_cast<int>(video[0].timestamp.seconds) + seconds);
        picture->SetTimestamp({moved, 0});
        harness.Push(picture);
    }
    EXPECT_EQ(output.GetBuffers().size(), 2U); // The first, and that after the jump.
}

TEST_F(TestPictureTest, RefusesWhatItCannotMake) {
    const auto errorOf = [](const Settings& settings) {
        return ThrownText([&] { PluginHarness(Construct<TestPicture>, settings); });
    };
    EXPECT_THAT(errorOf({{"codec", "nosuch"}}), HasSubstr("no encoder here for \"nosuch\""));
    EXPECT_THAT(errorOf({{"width", "641"}}), HasSubstr("must be even"));
    EXPECT_THAT(errorOf({{"rate", "121"}}), HasSubstr("rate must be from 1 to 120, not 121"));
    EXPECT_THAT(errorOf({{"realtime", "0"}}), HasSubstr("seconds must say"));
}
