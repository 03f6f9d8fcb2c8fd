#include "media/MediaSource.h"

#include <malloc.h>

#include <algorithm>

#include "MediaFixture.h"
#include "calvane/testing/PluginHarness.h"
#include "media/Library.h"
#include "quarn/core/LogCapture.h"
#include "support/ThrownText.h"

using namespace quarn::calvane;
using namespace quarn::calvane::testkit;
using calvane_media::MediaSource;
using quarn::osa::TimeStruct;
using testing::AllOf;
using testing::Each;
using testing::HasSubstr;
using testing::IsSupersetOf;

namespace {

constexpr unsigned int kMany = 1'000'000;
const char* const kStart = "2026-11-21T13:00:00Z";
constexpr std::int64_t kStartMicroseconds = 1'795'266'000'000'000;
const char* const kWithB = "-c:v libx264 -bf 2 -g 30 -c:a aac";

class MediaSourceTest : public MediaTest {
protected:
    /// Reads all of a file as fast as possible.
    void ReadAll(const std::string& url, Settings more = {}) {
        more.insert({{"url", url}, {"realtime", "0"}, {"start", kStart}});
        PluginHarness harness(Construct<MediaSource>, more);
        CollectingSink& videoSink = harness.ConnectOutput("video");
        CollectingSink& audioSink = harness.ConnectOutput("audio");
        harness.GenerateAll(kMany);
        EXPECT_THAT(harness.GetUnreadSettings(), testing::IsEmpty());
        video = videoSink.GetBuffers();
        audio = audioSink.GetBuffers();
        formats = videoSink.GetFormats();
    }
    static std::string ErrorOf(const Settings& settings) {
        return ThrownText([&] { PluginHarness(Construct<MediaSource>, settings); });
    }

    std::vector<ReceivedBuffer> video;
    std::vector<ReceivedBuffer> audio;
    std::vector<BufferFormat> formats; // Of video.
};

} // namespace

TEST_F(MediaSourceTest, GivesThePacketsOfAFileAsTheyAre) {
    for (const auto& [name, codecs] : std::vector<std::pair<std::string, std::string>>{
             {"b.mp4", kWithB},
             {"b.mkv", kWithB},
             {"b.ts", kWithB},
             {"b.flv", kWithB},
             {"h265.mp4", "-c:v libx265 -x265-params log-level=error -c:a pcm_s16le -f mov"},
             {"mjpeg.mov", "-c:v mjpeg -c:a pcm_alaw -ar 8000"},
             {"mjpeg.mkv", "-c:v mjpeg -c:a pcm_mulaw -ar 8000"},
             {"video.mp4", "-c:v libx264 -an"}}) {
        SCOPED_TRACE(name);
        const std::string file = MakeFile(name, codecs);
        ReadAll(file);
        EXPECT_EQ(PacketsOf(video), Probe(file, "v"));
        EXPECT_EQ(PacketsOf(audio), Probe(file, "a"));
        EXPECT_THAT(PacketsOf(audio), Each(testing::Field(&Packet::isKey, true)));
    }
}

TEST_F(MediaSourceTest, TellsTheRecorderWhatItNeedsWithEachKeyFrame) {
    setenv("TZ", "EST5", 1); // Times are in UTC wherever the camera is.
    tzset();
    ReadAll(MakeFile("b.mp4", std::string(kWithB) + " -b:v 300k -b:a 64k"),
            {{"start", "2026-11-21T13:00:00"}});
    EXPECT_EQ(TimeOf(video[0]), kStartMicroseconds);
    const BufferFormat& format = video[0].format;
    EXPECT_EQ(format.GetFormat(), MKTAG('a', 'v', 'c', '1'));
    EXPECT_EQ(format.GetInt("width"), 192);
    EXPECT_EQ(format.GetInt("height"), 108);
    EXPECT_EQ(format.GetInt("frame.rate.millihz"), 30000);
    EXPECT_GT(format.GetInt("bitrate"), 0);
    EXPECT_EQ(formats.front(), format); // Known before anything is connected.
    EXPECT_EQ(audio[0].format.GetInt("sample.freq"), 48000);
    EXPECT_EQ(audio[0].format.GetInt("channels"), 1);
    EXPECT_EQ(audio[0].format.GetInt("bits.per.sample"), 16);
    EXPECT_THAT(InfoOf(video[0]),
                IsSupersetOf(std::map<std::string, std::string>{
                    {"Codec", "h264"}, {"TimeBase", "1/15360"}, {"PixelFormat", "yuv444p"}}));
    EXPECT_THAT(InfoOf(video[0])["ExtraData"], testing::StartsWith("AfQA")); // High 4:4:4, with lengths.
    EXPECT_THAT(InfoOf(audio.back()), IsSupersetOf(std::map<std::string, std::string>{
                                          {"Codec", "aac"}, {"TimeBase", "1/48000"}, {"FrameSize", "1024"}}));
    for (const ReceivedBuffer& buffer : video) {
        EXPECT_EQ(buffer.metadata.Contains("info"), buffer.metadata.GetInt("KeyFrame") != 0);
    }
}

TEST_F(MediaSourceTest, NoticesThatTheParametersChange) {
    const std::string codecs = "-c:v libx264 -g 30 -an";
    MakeFile("a.ts", codecs, 1);
    MakeFile("b.ts", codecs, 1, "320x180");
    folder.Write("both.ts", folder.Read("a.ts") + folder.Read("b.ts"));
    ReadAll(folder.Path("both.ts"));
    ASSERT_EQ(video.size(), 60U);
    EXPECT_EQ(video[29].format.GetInt("width"), 192);
    EXPECT_EQ(video[30].format.GetInt("width"), 320);
    EXPECT_EQ(formats.back().GetInt("height"), 180);
    EXPECT_EQ(InfoOf(video[30])["Width"], "320");
    EXPECT_NE(InfoOf(video[30])["ExtraData"], InfoOf(video[0])["ExtraData"]);

    MakeFile("a.mjpeg", "-c:v mjpeg -an", 1);
    MakeFile("b.mjpeg", "-c:v mjpeg -an", 1, "320x180");
    ReadAll(folder.Write("both.mjpeg", folder.Read("a.mjpeg") + folder.Read("b.mjpeg")));
    ASSERT_EQ(video.size(), 60U);
    EXPECT_EQ(InfoOf(video[29])["Width"], "192");
    EXPECT_EQ(video[30].format.GetInt("width"), 320);
    EXPECT_EQ(InfoOf(video[30])["Height"], "180");
}

TEST_F(MediaSourceTest, GoesOnWhereItEndedWhenItReadsAFileAgain) {
    const std::string file = MakeFile("b.mp4", kWithB);
    PluginHarness harness(Construct<MediaSource>,
                          {{"url", file}, {"realtime", "0"}, {"loop", "1"}, {"start", kStart}});
    CollectingSink& output = harness.ConnectOutput("video");
    harness.ConnectOutput("audio");
    while (output.GetBuffers().size() < 3 * 90) {
        ASSERT_TRUE(harness.Generate());
    }
    const std::vector<ReceivedBuffer> buffers = output.GetBuffers();
    const std::vector<Packet> once = Probe(file, "v");
    for (std::size_t i = 0; i != 90; ++i) {
        EXPECT_EQ(Md5(buffers[180 + i].bytes), once[i].hash);
    }
    for (std::size_t i = 1; i != buffers.size(); ++i) {
        const std::int64_t step = TimeOf(buffers[i]) - TimeOf(buffers[i - 1]);
        // The tone is longer than the picture by part of a packet, and the first of three packets is decoded early.
        EXPECT_THAT(step, AllOf(testing::Ge(33'333), testing::Le(i % 90 == 0 ? 130'000 : 33'334))) << i;
    }
}

TEST_F(MediaSourceTest, DatesNothingAheadOfTheClock) {
    const std::string file = MakeFile("b.mp4", kWithB, 30);
    for (const char* realtime : {"0", "1"}) {
        SCOPED_TRACE(realtime);
        const std::int64_t before = calvane_media::UtcNow();
        PluginHarness harness(Construct<MediaSource>, {{"url", file}, {"realtime", realtime}});
        CollectingSink& output = harness.ConnectOutput("video");
        harness.ConnectOutput("audio");
        TimeStruct next;
        // What lies in the past comes at once, and what is not yet due is waited for in pieces short enough for a stop.
        while (harness.Generate(next) && (realtime[0] == '0' || next.IsZero())) {
            EXPECT_LE(next, TimeStruct(0, 100'000));
        }
        const std::int64_t after = calvane_media::UtcNow();
        const std::vector<ReceivedBuffer> buffers = output.GetBuffers();
        const bool isPast = realtime[0] == '0';
        ASSERT_FALSE(buffers.empty());
        EXPECT_LE(TimeOf(buffers.back()), after);
        EXPECT_EQ(buffers.size() == 900, isPast);
        EXPECT_THAT(TimeOf(buffers[0]) + (isPast ? 30'000'000 : 0),
                    AllOf(testing::Ge(before - 100'000), testing::Le(after)));
    }
}

TEST_F(MediaSourceTest, SurvivesInputThatIsDamaged) {
    const std::string codecs = std::string(kWithB) + " -movflags +faststart";
    for (const char* name : {"b.mp4", "b.mkv", "b.ts"}) {
        SCOPED_TRACE(name);
        const std::vector<Packet> whole = Probe(MakeFile(name, codecs), "v");
        const std::string bytes = folder.Read(name);
        ReadAll(folder.Write(std::string("cut-") + name, bytes.substr(0, bytes.size() * 2 / 3)));
        const std::vector<Packet> cut = PacketsOf(video);
        ASSERT_GT(cut.size(), 30U);
        ASSERT_LT(cut.size(), whole.size());
        // The last packet is not whole.
        EXPECT_TRUE(std::equal(cut.begin(), cut.end() - 1, whole.begin()));
    }
    std::string noisy = folder.Read("b.ts");
    for (std::size_t i = noisy.size() / 3; i != noisy.size() / 2; ++i) {
        noisy[i] = static_cast<char>(i * i % 251);
    }
    const quarn::core::LogCapture log(quarn::core::LogLevel::Information);
    ReadAll(folder.Write("noisy.ts", noisy));
    EXPECT_GT(video.size(), 45U);
    EXPECT_TRUE(std::is_sorted(video.begin(), video.end(),
                               [](const auto& a, const auto& b) { return TimeOf(a) < TimeOf(b); }));
    const auto lines = log.GetLines();
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(),
                      [](const auto& line) { return line.text.rfind("The input is damaged: ", 0) == 0; }),
        1);
    EXPECT_THAT(lines.back().text, testing::MatchesRegex("Packets: .* damaged: [1-9][0-9]*"));
}

TEST_F(MediaSourceTest, RefusesWhatItCannotRead) {
    std::string noise;
    for (unsigned int i = 1, x = 1; i != 20000; ++i) {
        noise += static_cast<char>((x = x * 1103515245 + 12345) >> 16);
    }
    const std::string file = MakeFile("b.mp4", kWithB, 1);
    EXPECT_THAT(ErrorOf({{"url", folder.Write("noise.mp4", noise)}}),
                AllOf(HasSubstr("noise.mp4"), HasSubstr("Invalid data")));
    EXPECT_THAT(ErrorOf({{"url", folder.Path("none.mp4")}}),
                AllOf(HasSubstr("none.mp4"), HasSubstr("No such file or directory")));
    EXPECT_THAT(ErrorOf({{"url", file}, {"options", "nosuch=1"}}),
                HasSubstr("nothing takes the option \"nosuch\""));
    EXPECT_THAT(ErrorOf({{"url", file}, {"options", "framerate"}}), HasSubstr("\"framerate\" is no list"));
    EXPECT_THAT(ErrorOf({{"url", file}, {"format", "nosuch"}}), HasSubstr("no input format \"nosuch\""));
    EXPECT_THAT(ErrorOf({{"url", file}, {"timeout.ms", "99"}}), HasSubstr("from 100 to 600000, not 99"));
    EXPECT_THAT(ErrorOf({}), HasSubstr("url must name"));
    for (const char* start : {"13:00:00", "2026-11-21", "2026-11-21T25:00:00Z", "1969-12-31T23:59:59Z"}) {
        EXPECT_THAT(ErrorOf({{"url", file}, {"start", start}}), HasSubstr("start must be a time")) << start;
    }
}

TEST_F(MediaSourceTest, DoesNotRepeatWhatHasNoPackets) {
    const std::string format("\x10\0\0\0\1\0\1\0\x40\x1f\0\0\x80\x3e\0\0\2\0\x10\0",
                             20); // 16 bits of one channel.
    const std::string file = folder.Write(
        "none.wav", std::string("RIFF\x24\0\0\0WAVEfmt ", 16) + format + std::string("data\0\0\0\0", 8));
    PluginHarness harness(Construct<MediaSource>, {{"url", file}, {"realtime", "0"}, {"loop", "1"}});
    harness.ConnectOutput("audio");
    EXPECT_THAT(ThrownText([&] { harness.GenerateAll(kMany); }),
                HasSubstr("none.wav has no packets to repeat"));
}

TEST_F(MediaSourceTest, NeedsNoMoreMemoryForALongFile) {
    const std::string file = MakeFile("b.mkv", kWithB);
    PluginHarness harness(Construct<MediaSource>,
                          {{"url", file}, {"realtime", "0"}, {"loop", "1"}, {"start", kStart}});
    const auto heapAfter = [&harness](int packets) {
        for (int i = 0; i != packets; ++i) {
            harness.Generate();
        }
        return mallinfo2().uordblks;
    };
    // Nothing is connected, and so nothing is kept; the file has 231 packets.
    const std::size_t early = heapAfter(20);
    EXPECT_LT(heapAfter(300), early + 200'000);
}
