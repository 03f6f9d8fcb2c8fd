// Files appear whole or not at all; pictures, players and pipes.

#include <boost/date_time/posix_time/posix_time.hpp>
#include <csignal>

#include "export/ExportFixture.h"
#include "support/SmallCard.h"
#include "support/WaitUntil.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kVideo[] =
    "-f lavfi -i testsrc=size=320x240:rate=25:duration=6 -c:v libx264 -preset ultrafast -g 25 -bf 0 ";

class OutputTest : public ExportTest {
protected:
    /// So much that writing it takes a while.
    void RecordMuch(unsigned int records) const {
        auto& track = Recorder::instance()->getTrack(quarn::calvane::VIDEO_TRACK);
        track.setInfo({{"Codec", "mjpeg"}, {"TimeBase", "1/25"}, {"Width", "640"}, {"Height", "480"}});
        const std::vector<char> picture(500'000, 'p');
        for (unsigned int i = 0; i != records; ++i) {
            const boost::posix_time::ptime time(boost::gregorian::date(2026, 1, 1),
                                                boost::posix_time::milliseconds(40 * i));
            ASSERT_TRUE(track.writeRecord(time, 1, picture.data(), picture.size()));
        }
    }
    std::vector<std::string> Leftovers() const {
        std::vector<std::string> names;
        for (const std::string& name : Files()) {
            if (name.find("out.mp4") != std::string::npos) {
                names.push_back(name);
            }
        }
        return names;
    }
    std::string Shell(const std::string& line, int status = 0) const {
        Program shell("/usr/bin/sh", {"-c", line}, folder.Path());
        EXPECT_EQ(shell.Wait(), status) << shell.Err();
        return shell.Out() + shell.Err();
    }
    static constexpr const char* kTool = CALVANE_EMULATOR " '" CALVANE_BIN_DIR "/calvane-recording-media' ";
};

TEST_F(OutputTest, WhatIsThereIsOverwrittenOnlyByForceAndNothingHalfIsLeft) {
    RecordMuch(300);
    folder.Write("out.mp4", "mine");
    const Answer refused = Run({"export", "out.mp4"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("out.mp4 is left alone (--force overwrites it)"));
    for (const int signal : {SIGINT, SIGTERM}) {
        Program program(kEmulated ? "calvane-recording-media" : "calvane-recording",
                        {"export", "--force", "out.mp4"}, folder.Path());
        ASSERT_TRUE(WaitUntil([&] { return Leftovers().size() == 2; })); // It has begun.
        program.Signal(signal);
        EXPECT_EQ(program.Wait(), 1);
        EXPECT_THAT(program.Err(), HasSubstr("Interrupted"));
        EXPECT_EQ(folder.Read("out.mp4"), "mine");
        EXPECT_THAT(Leftovers(), ElementsAre("out.mp4"));
    }
    ExpectRuns({"export", "--force", "out.mp4"});
    EXPECT_GT(std::filesystem::file_size(folder.Path("out.mp4")), 150'000'000U);
    EXPECT_THAT(Run({"export", "nowhere/out.mp4"}).err, HasSubstr("nowhere/out.mp4: No such file"));
    EXPECT_EQ(Run({"export", "out.avi"}).status, 2);
    EXPECT_EQ(Run({"export", "--format", "mov", "out.mov"}).status, 2);
    EXPECT_EQ(Run({"export", "--fragmented", "out.mkv"}).status, 2);
}

TEST_F(OutputTest, AFullDiskIsToldAndLeavesNoFile) {
    const SmallCard disk(20U << 20U, 0);
    if (!disk.Why().empty()) {
        GTEST_SKIP() << "there is no small disk to be had: " << disk.Why();
    }
    RecordMuch(100);
    const Answer full = Run({"export", disk.Path() + "/out.mp4"});
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.err, HasSubstr("Cannot write " + disk.Path() + "/out.mp4: No space left on device"));
    EXPECT_EQ(Shell("ls -A " + disk.Path()), "lost+found\n");
}

TEST_F(OutputTest, PipesAndFragmentsCanBePlayedWhileTheyAreWritten) {
    Make("in.mp4", kVideo);
    Record("in.mp4");
    ExpectRuns({"export", "--fragmented", "fragmented.mp4"});
    Shell(std::string(kTool) + "export --format mp4 - | cat > piped.mp4");
    Shell(std::string(kTool) + "play | cat > played.mkv");
    for (const char* const name : {"fragmented.mp4", "piped.mp4", "played.mkv"}) {
        ExpectSamePackets(name, "in.mp4", std::string(name).find("mp4") != std::string::npos);
    }
    EXPECT_THAT(folder.Read("fragmented.mp4"), HasSubstr("moof"));
    // A player that has had enough ends quietly; one that fails is told.
    folder.Write("player", "#!/bin/sh\nexec head -c 1000 > \"$(dirname \"$0\")/shown\"\n");
    std::filesystem::permissions(folder.Path("player"), std::filesystem::perms::owner_all);
    ExpectRuns({"play", "--player", folder.Path("player")});
    EXPECT_EQ(folder.Read("shown").size(), 1000U);
    EXPECT_THAT(Run({"play", "--player", "/bin/false"}).err, HasSubstr("/bin/false ended with the status 1"));
    EXPECT_THAT(Run({"play", "--player", "/nowhere/player"}).err, HasSubstr("/nowhere/player"));
}

TEST_F(OutputTest, ThumbnailsAreTheKeyFramesInTime) {
    Make("in.mp4", kVideo);
    Record("in.mp4");
    RecordMedia(*Recorder::instance(), folder.Path("in.mp4"), {kStart + 3'600'000'000});
    const Answer answer = Run({"thumbnails", "--every", "2s", "--out", "pictures", "--width", "160"});
    EXPECT_EQ(answer.status, 0) << answer.err;
    EXPECT_THAT(Shell("ls pictures"),
                "20260101T100000.000000Z.jpg\n20260101T100002.000000Z.jpg\n20260101T100004.000000Z.jpg\n"
                "20260101T100005.000000Z.jpg\n20260101T110000.000000Z.jpg\n20260101T110002.000000Z."
                "jpg\n20260101T110004.000000Z.jpg\n");
    EXPECT_EQ(Probe("pictures/20260101T100002.000000Z.jpg", "-show_entries stream=codec_name,width,height"),
              "mjpeg\n160\n120\n");
    // The same picture as in the input, but for what JPEG costs.
    Make("wanted.png", "-ss 2 -i in.mp4 -frames:v 1 -vf scale=160:120");
    const std::string psnr = Shell(
        "ffmpeg -v info -i wanted.png -i pictures/20260101T100002.000000Z.jpg -lavfi "
        "[0]format=yuv420p[a]\\;[1]format=yuv420p[b]\\;[a][b]psnr -f null - 2>&1");
    const std::size_t average = psnr.find("average:");
    ASSERT_NE(average, std::string::npos) << psnr;
    EXPECT_GT(std::stod(psnr.substr(average + 8)), 25) << psnr;
    EXPECT_EQ(Run({"thumbnails", "--out", "more", "--from", "2026-01-02"}).status, 1);
}

TEST_F(OutputTest, WithoutItsProgramTheOtherCommandsWorkAndItsOwnSayWhatIsMissing) {
    Make("in.mp4", kVideo);
    Record("in.mp4");
    std::filesystem::create_directories(folder.Path("alone/bin"));
    std::filesystem::copy_file(CALVANE_BIN_DIR "/calvane-recording",
                               folder.Path("alone/bin/calvane-recording"));
    const std::string alone = folder.Path("alone/bin/calvane-recording");
    EXPECT_EQ(RunTool(alone, {"summary"}).status, 0);
    EXPECT_EQ(RunTool(alone, {"export", "--help"}).status, 0);
    const Answer missing = RunTool(alone, {"export", "out.mp4"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("install calvane's component \"media\""));
    EXPECT_EQ(Shell("readelf -d " + alone + " | grep -c 'NEEDED.*libav' || true"), "0\n");
    // What was recorded without a codec is refused by name.
    RecordMedia(*Recorder::instance(), folder.Path("in.mp4"), {kStart + 60'000'000});
    Recorder::instance()->getTrack(quarn::calvane::VIDEO_TRACK).setInfo({{"Width", "320"}});
    const boost::posix_time::ptime late(boost::gregorian::date(2026, 1, 1), boost::posix_time::hours(11));
    Recorder::instance()->getTrack(quarn::calvane::VIDEO_TRACK).writeRecord(late, 1, "x", 1);
    EXPECT_THAT(Run({"export", "--from", "2026-01-01T11:00", "out.mp4"}).err,
                HasSubstr("The video of 2026-01-01T11:00:00.000000Z cannot be exported: Codec is missing"));
}

TEST_F(OutputTest, TheDemonstrationEndsWell) {
    SKIP_WHEN_EMULATED("the demonstration starts the programs itself");
    Recorder::deinit(); // It has a recorder and a bus of its own.
    const std::string out =
        Shell("PATH=" CALVANE_BIN_DIR ":$PATH exec " CALVANE_SOURCE_DIR "/examples/camera-demo.sh 7 demo");
    EXPECT_THAT(out, HasSubstr("codec_name=h264|width=1280|height=720"));
    EXPECT_THAT(out, HasSubstr("Try next:"));
    EXPECT_GT(PacketsOf("demo/clip.mp4", "v").size(), 140U);
    EXPECT_GT(PacketsOf("demo/clip.mp4", "a").size(), 220U);
}

} // namespace
