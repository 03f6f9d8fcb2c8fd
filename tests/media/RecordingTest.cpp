#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "MediaFixture.h"
#include "calvane/recording/RecordHeader.h"
#include "calvane/testing/PluginHarness.h"
#include "drenn/multi_track_recorder/BlobRecord.h"
#include "drenn/multi_track_recorder/Track.h"
#include "media/MediaSource.h"
#include "support/Effort.h"
#include "support/PrivateBus.h"
#include "support/ThrownText.h"

using namespace quarn::calvane;
using namespace quarn::calvane::testkit;
using calvane_media::MediaSource;
using testing::IsSupersetOf;

namespace {

using Info = std::map<std::string, std::string>;

/// The recorder on a card of the test's own.
class RecordingTest : public MediaTest {
protected:
    RecordingTest() {
        setenv("DRENN_SETTINGS", folder.Path("settings.db").c_str(), 1);
        setenv("DRENN_DEVICE_INFORMATION",
               folder.Write("device.ini", "[device]\nmodel.name = M\nserial.number = 1\n").c_str(), 1);
        std::filesystem::create_directory(folder.Path("card"));
        RecordingManager::setRecordingRootPath(folder.Path("card"));
        RecordingManager::init();
    }
    ~RecordingTest() override { RecordingManager::deinit(); }

    /// Records a whole file on both tracks.
    static void Record(const std::string& file, const Settings& videoSettings = {},
                       const std::string& start = "2026-11-21T13:00:00Z") {
        const std::string module = CALVANE_LIB_DIR "/calvane/plugins/recording.so";
        Settings settings = videoSettings;
        settings["track"] = "video";
        PluginHarness video(module, "RecordingSink", settings);
        PluginHarness audio(module, "RecordingSink", {{"track", "audio"}});
        PluginHarness source(Construct<MediaSource>, {{"url", file}, {"realtime", "0"}, {"start", start}});
        source.GetPlugin().ConnectToSink("video", video.GetPlugin().GetSink());
        source.GetPlugin().ConnectToSink("audio", audio.GetPlugin().GetSink());
        while (source.Generate()) {
        }
    }
    static drenn::multi_track_recorder::Track& TrackOf(track_type type) {
        return *RecordingManager::instance()->getTrack(type).getTrack();
    }
    static std::vector<Packet> ReadBack(track_type type) {
        std::vector<Packet> packets;
        std::int64_t first = 0;
        for (unsigned int i = 0; i != TrackOf(type).size(); ++i) {
            drenn::multi_track_recorder::BlobRecord record;
            TrackOf(type).seekg(i);
            TrackOf(type) >> record;
            const auto& blobs = record.blobs();
            RecordHeader header;
            std::memcpy(&header, blobs.at(0).data(), std::min(sizeof header, blobs.at(0).size()));
            first = packets.empty() ? header.ticks : first;
            packets.push_back({header.ticks - first, header.compositionOffset(),
                               (header.flags & RecordHeader::kKeyFrame) != 0,
                               Md5({reinterpret_cast<const char*>(blobs.at(1).data()), blobs.at(1).size()})});
        }
        return packets;
    }
    static Info InfoAt(track_type type, unsigned int index) {
        std::string text;
        TrackOf(type).seekg(index);
        TrackOf(type).getInfo(text);
        Info info;
        RecordingManager::deserializeTrackInfo(text, info);
        return info;
    }

    const PrivateBus bus;
};

} // namespace

TEST_F(RecordingTest, HoldsThePacketsOfTheInputAsTheyWere) {
    const std::string file = MakeFile("b.mp4", "-c:v libx264 -bf 2 -g 30 -c:a aac");
    Record(file, {{"info.Bitrate", "7"}});
    EXPECT_EQ(ReadBack(VIDEO_TRACK), Probe(file, "v"));
    EXPECT_EQ(ReadBack(AUDIO_TRACK), Probe(file, "a"));
    // What is set goes before what the input says, and that before the format of the buffers.
    const Info info = InfoAt(VIDEO_TRACK, 89);
    EXPECT_THAT(info, IsSupersetOf(Info{{"Codec", "h264"}, {"Bitrate", "7"}, {"Width", "192"}}));
    EXPECT_EQ(info, InfoAt(VIDEO_TRACK, 0));
    EXPECT_EQ(info.count("ExtraData"), 1U);
    EXPECT_THAT(InfoAt(AUDIO_TRACK, 0), IsSupersetOf(Info{{"Codec", "aac"}, {"SampleFreq", "48000"}}));
}

TEST_F(RecordingTest, HoldsNewParametersFromTheirKeyFrameOn) {
    const std::string codecs = "-c:v libx264 -g 30 -an";
    MakeFile("a.ts", codecs, 1);
    MakeFile("b.ts", codecs, 1, "320x180");
    Record(folder.Write("both.ts", folder.Read("a.ts") + folder.Read("b.ts")));
    EXPECT_EQ(InfoAt(VIDEO_TRACK, 29)["Width"], "192");
    EXPECT_EQ(InfoAt(VIDEO_TRACK, 30)["Width"], "320");
    EXPECT_NE(InfoAt(VIDEO_TRACK, 30)["ExtraData"], InfoAt(VIDEO_TRACK, 0)["ExtraData"]);
}

TEST_F(RecordingTest, GivesItsPacketsBackAsTheyWereRecorded) {
    const std::string module = CALVANE_LIB_DIR "/calvane/plugins/recording.so";
    MakeFile("a.ts", "-c:v libx264 -bf 2 -g 30 -c:a aac", 1);
    MakeFile("b.ts", "-c:v libx264 -bf 2 -g 30 -c:a aac", 1, "320x180");
    Record(folder.Write("both.ts", folder.Read("a.ts") + folder.Read("b.ts")));
    PluginHarness source(module, "RecordingSource", {{"realtime", "0"}});
    CollectingSink& video = source.ConnectOutput("video");
    CollectingSink& audio = source.ConnectOutput("audio");
    source.GenerateAll();
    const std::vector<ReceivedBuffer> pictures = video.GetBuffers();
    EXPECT_EQ(PacketsOf(pictures), ReadBack(VIDEO_TRACK));
    EXPECT_EQ(PacketsOf(audio.GetBuffers()), ReadBack(AUDIO_TRACK));
    for (unsigned int i = 0; i != pictures.size(); ++i) {
        EXPECT_EQ(pictures[i].format.GetInt("width"), i < 30 ? 192 : 320);
        EXPECT_TRUE(!pictures[i].metadata.Contains("info") || InfoOf(pictures[i]) == InfoAt(VIDEO_TRACK, i))
            << i;
    }
    EXPECT_EQ(pictures[30].metadata.GetInt("FirstAfterGap"), 1);
    EXPECT_TRUE(pictures[0].metadata.Contains("info") && pictures[30].metadata.Contains("info"));
    EXPECT_THAT(ThrownText([&] {
                    PluginHarness(module, "RecordingSource", {{"from", "noon"}});
                }),
                testing::HasSubstr("from: "));
    // Half a second of it in half a second, without the gap in front of it.
    const std::int64_t begin = TimeOf(pictures[35]);
    const auto clock = std::chrono::steady_clock::now();
    PluginHarness paced(module, "RecordingSource",
                        {{"from", "@" + std::to_string(static_cast<double>(begin) / 1e6)}});
    CollectingSink& later = paced.ConnectOutput("video");
    while (later.GetBuffers().size() < 15) {
        ASSERT_TRUE(paced.Generate());
    }
    EXPECT_GE(std::chrono::steady_clock::now() - clock, std::chrono::milliseconds(400));
}

TEST_F(RecordingTest, KeepsTheTimesOfAnHourAndTakesNoMoreMemoryForIt) {
    MakeFile("ten.mp4", "-c:v libx264 -preset ultrafast -bf 2 -g 30 -c:a aac", 10);
    const std::size_t times = Effort(360);
    const auto repeat = [&](std::size_t count, const std::string& file) {
        Run("ffmpeg", "-v error -stream_loop " + std::to_string(count - 1) + " -i ten.mp4 -c copy " + file);
        return folder.Path(file);
    };
    const auto resident = [] {
        std::ifstream statistics("/proc/self/statm");
        std::size_t size = 0;
        std::size_t pages = 0;
        statistics >> size >> pages;
        return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    };
    Record(repeat(1 + times / 3, "before.mp4"), {}, "2026-11-20T13:00:00Z"); // What is made once.
    for (const track_type type : {VIDEO_TRACK, AUDIO_TRACK}) {
        TrackOf(type).eraseRange(0, TrackOf(type).size());
    }
    const std::size_t before = resident();
    const std::string file = repeat(times, "hour.mp4");
    Record(file);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // Which keep what was freed.
    EXPECT_LT(resident(), before + (std::size_t{48} << 20U));       // The packets alone are 75 MiB.
#else
    EXPECT_NE(before, 0U);
#endif
    EXPECT_TRUE(ReadBack(VIDEO_TRACK) == Probe(file, "v"));
    EXPECT_TRUE(ReadBack(AUDIO_TRACK) == Probe(file, "a"));
    EXPECT_EQ(TrackOf(VIDEO_TRACK).size(), 300 * times);
    const auto begin = [&](const std::string& kind) {
        return std::stod(Run("ffprobe",
                             "-v error -read_intervals %+#1 -show_entries packet=dts_time -of csv=p=0 "
                             "-select_streams " +
                                 kind + " " + file));
    };
    const auto offset = RecordingManager::instance()->getTrack(AUDIO_TRACK).getTimestampAtIndex(0) -
                        RecordingManager::instance()->getTrack(VIDEO_TRACK).getTimestampAtIndex(0);
    EXPECT_NEAR(static_cast<double>(offset.total_microseconds()) / 1e6, begin("a") - begin("v"), 0.001);
}
