// What comes out of a recording are the packets that went in.

#include "export/ExportFixture.h"

namespace {

constexpr char kPicture[] = "-f lavfi -i testsrc=size=320x240:rate=25:duration=4 ";
constexpr char kTone[] = "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=4 ";
constexpr char kB[] = "-c:v libx264 -preset veryfast -g 25 -bf 3 ";

TEST_F(ExportTest, H264WithBFramesAndAacKeepEveryPacketAndTime) {
    Make("in.mp4", std::string(kPicture) + kTone + kB + "-c:a aac -shortest");
    Record("in.mp4");
    ExpectRuns({"export", "out.mp4"});
    ExpectSamePackets("out.mp4", "in.mp4", true);
    ExpectRuns({"export", "out.mkv"});
    ExpectSamePackets("out.mkv", "in.mp4");
    // A transport stream has start codes: as the library makes them of the same packets.
    ExpectRuns({"export", "out.ts"});
    Make("in.ts", "-i in.mp4 -c copy");
    EXPECT_EQ(PacketsOf("out.ts", "v"), PacketsOf("in.ts", "v"));
    EXPECT_EQ(PacketsOf("out.ts", "a"), PacketsOf("in.ts", "a"));
    // And back: what has start codes keeps them where a file may have them.
    RecordAnew("in.ts");
    ExpectRuns({"export", "again.ts"});
    EXPECT_EQ(PacketsOf("again.ts", "v"), PacketsOf("in.ts", "v"));
    ExpectRuns({"export", "again.mp4"});
    EXPECT_EQ(PacketsOf("again.mp4", "a"), PacketsOf("in.mp4", "a"));
    EXPECT_EQ(Probe("again.mp4", "-select_streams v -count_frames -show_entries stream=nb_read_frames"),
              "100\n");
}

TEST_F(ExportTest, OtherCodecsKeepEveryPacketAndTime) {
    struct Case {
        const char* arguments;
        const char* file;
        const char* exported;
        bool withTimes; ///< Without video nothing says that sound begins before 0.
    };
    const Case cases[] = {
        {"-c:v libx264 -preset veryfast -bf 0 -c:a pcm_s16le", "pcm.mkv", "pcm-out.mkv", true},
        {"-c:v libx264 -preset veryfast -bf 0 -c:a pcm_alaw -ar 8000", "g711.mkv", "g711-out.mkv", true},
        {"-c:v libx265 -preset ultrafast -x265-params log-level=error -c:a aac", "hevc.mp4", "hevc-out.mp4",
         true},
        {"-c:v mjpeg -q:v 5 -an", "mjpeg.mp4", "mjpeg-out.mp4", true},
        {"-vn -c:a aac", "tone.mp4", "tone-out.mp4", false}};
    for (const auto& [arguments, file, exported, withTimes] : cases) {
        Make(file, std::string(kPicture) + kTone + arguments);
        RecordAnew(file);
        ExpectRuns({"export", exported});
        ExpectSamePackets(exported, file, withTimes);
        EXPECT_NEAR(DurationOf(exported), DurationOf(file), 0.05);
    }
}

} // namespace
