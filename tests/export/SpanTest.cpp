// Which part of a recording gets into a file, and what is said of the rest.

#include <boost/date_time/posix_time/posix_time.hpp>

#include "export/ExportFixture.h"
#include "record_source/CardSource.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;

constexpr char kH264[] = "-c:v libx264 -preset ultrafast -g 25 -bf 2 -c:a aac";

/// A picture of this size every 40 ms with a key frame each second, and a tone.
std::string Inputs(const std::string& size, int seconds) {
    const std::string duration = std::to_string(seconds);
    return "-f lavfi -i testsrc=size=" + size + ":rate=25:duration=" + duration +
           " -f lavfi -i sine=sample_rate=48000:duration=" + duration + " " + kH264;
}

class SpanTest : public ExportTest {
protected:
    /// The export's own account of its files.
    json Export(Words words) const {
        words.insert(words.begin(), "export");
        words.emplace_back("--json");
        const Answer answer = Run(words);
        EXPECT_EQ(answer.status, 0) << answer.err;
        return json::parse(answer.out, nullptr, false)["files"];
    }
    std::size_t CountFrames(const std::string& name) const {
        return std::stoul(Probe(name, "-select_streams v -count_frames -show_entries stream=nb_read_frames"));
    }
};

TEST_F(SpanTest, BeginsWithTheKeyFrameInFrontFromServiceAndCardAlike) {
    Make("in.mp4", Inputs("320x240", 6));
    Record("in.mp4");
    const Words span{"--from", "2026-01-01T10:00:02.5Z", "--to", "2026-01-01T10:00:04.48Z"};
    const auto with = [&span](Words words) {
        words.insert(words.end(), span.begin(), span.end());
        return words;
    };
    const json file = Export(with({"part.mp4"}))[0];
    EXPECT_EQ(file["first"], "2026-01-01T10:00:02.000000Z");
    // 2.5 s and the two frames that are decoded earlier than they are shown.
    EXPECT_EQ(file["records"]["video"], 65);
    EXPECT_EQ(CountFrames("part.mp4"), 65U);
    EXPECT_NEAR(DurationOf("part.mp4"), 2.6, 0.05);
    EXPECT_THAT(Probe("part.mp4", "-show_entries format_tags"), HasSubstr("2026-01-01T10:00:02.000000Z\n"));
    EXPECT_THAT(Probe("part.mp4", "-select_streams v -show_entries stream=start_time"),
                HasSubstr("0.000000"));

    // At a key frame's own time there is nothing to be shown before it.
    EXPECT_EQ(
        Export({"exact.mp4", "--from", "2026-01-01T10:00:03Z", "--to", "2026-01-01T10:00:03.1Z"})[0]["first"],
        "2026-01-01T10:00:03.000000Z");

    // It is decoded already, and not yet shown.
    EXPECT_EQ(Export({"early.mp4", "--from", "2026-01-01T10:00:02.95Z", "--to",
                      "2026-01-01T10:00:03.1Z"})[0]["first"],
              "2026-01-01T10:00:02.000000Z");

    for (const char* const name : {"service.mkv", "service.ts"}) {
        Export(with({name}));
    }
    const Answer listed =
        RunTool("calvane-recording", with({"read", "--track", "video", "--from-key", "--list"}));
    const Answer busy = Run({"export", "x.mp4", "--card", "card"});
    EXPECT_EQ(busy.status, 1);
    EXPECT_THAT(busy.err, HasSubstr("is open in another process"));
    Recorder::deinit();
    for (const char* const name : {"card.mkv", "card.ts", "card.mp4"}) {
        Export(with({"--card", "card", name}));
    }
    ExpectSamePackets("card.mkv", "service.mkv", true);
    EXPECT_TRUE(folder.Read("card.ts") == folder.Read("service.ts"));
    EXPECT_TRUE(folder.Read("card.mp4") == folder.Read("part.mp4"));
    EXPECT_EQ(std::count(listed.out.begin(), listed.out.end(), '\n'), 65) << listed.err;
    EXPECT_THAT(listed.out, testing::StartsWith("2026-01-01T10:00:01.920000Z"));
    EXPECT_THAT(Run({"export", "--card", "card", "--device", "Camera,8", "x.mp4"}).err,
                HasSubstr("\"Camera,7\", and none of \"Camera,8\""));
}

/// The store knows where each segment begins, which is where searches begin.
TEST_F(SpanTest, EachRecordOfACardIsFoundByItsTimeInAnySegment) {
    using calvane_recording::Time;
    Make("in.mp4", "-f lavfi -i sine=sample_rate=48000:duration=1 -c:a aac");
    for (std::int64_t start : {0, 2'000'000, 4'000'000}) { // What is closed begins a new segment.
        RecordMedia(*Recorder::instance(), folder.Path("in.mp4"), {kStart + start});
        Recorder::deinit();
        Recorder::init();
    }
    Recorder::deinit();
    calvane_recording::CardSource source(folder.Path("card"), "");
    const auto timesFrom = [&source](Time begin) {
        const auto records = source.Open(calvane_recording::TrackKind::Audio, {begin, INT64_MAX});
        std::vector<Time> times;
        for (calvane_recording::Record record; records->Read(record);) {
            times.push_back(record.time);
        }
        return times;
    };
    const std::vector<Time> all = timesFrom(0);
    ASSERT_GT(all.size(), 100U);
    for (auto at = all.begin(); at != all.end(); ++at) {
        EXPECT_EQ(timesFrom(*at), std::vector<Time>(at, all.end()));
        EXPECT_EQ(timesFrom(*at + 1), std::vector<Time>(at + 1, all.end()));
    }
}

TEST_F(SpanTest, AGapTakesItsTimeOrIsLeftOut) {
    Make("in.mp4", Inputs("320x240", 12));
    RecordingPlan plan{kStart};
    plan.isLost = [](std::int64_t time) { return time >= 2'900'000 && time < 7'900'000; };
    RecordMedia(*Recorder::instance(), folder.Path("in.mp4"), plan);
    const json kept = Export({"kept.mp4"})[0];
    EXPECT_NEAR(DurationOf("kept.mp4"), 12, 0.1);
    const json joined = Export({"joined.mp4", "--gaps", "skip"})[0];
    EXPECT_NEAR(joined["skipped"], 5, 0.1);
    EXPECT_NEAR(DurationOf("joined.mp4"), 7, 0.15);
    EXPECT_EQ(PacketsOf("joined.mp4", "v"), PacketsOf("kept.mp4", "v"));
    // Picture and sound stay together behind the gap: the last packets of both.
    const auto lastTime = [this](const char* name, const char* stream) {
        std::istringstream times(
            Probe(name, std::string("-show_entries packet=pts_time -select_streams ") + stream));
        double last = 0;
        for (double time = 0; times >> time;) {
            last = std::max(last, time);
        }
        return last;
    };
    for (const char* const stream : {"v", "a"}) {
        const double skipped = joined["skipped"];
        EXPECT_NEAR(lastTime("kept.mp4", stream) - lastTime("joined.mp4", stream), skipped, 0.0005) << stream;
    }
    EXPECT_THAT(
        Run({"export", "none.mp4", "--from", "2026-01-01T10:00:03.2Z", "--to", "2026-01-01T10:00:03.1Z"}).err,
        HasSubstr("ends"));
    const Answer nothing = Run({"export", "none.mp4", "--from", "2026-01-02", "--to", "2026-01-03"});
    EXPECT_EQ(nothing.status, 1);
    EXPECT_THAT(nothing.err, HasSubstr("There is nothing to export"));
    EXPECT_FALSE(folder.Has("none.mp4"));
}

TEST_F(SpanTest, SoundLongBeforeThePictureIsNotCutOff) {
    Make("tone.mp4", "-f lavfi -i sine=sample_rate=48000:duration=5 -c:a aac");
    Make("picture.mp4", "-f lavfi -i testsrc=size=320x240:rate=25:duration=3 -c:v libx264 -preset ultrafast");
    RecordMedia(*Recorder::instance(), folder.Path("tone.mp4"), {kStart});
    RecordMedia(*Recorder::instance(), folder.Path("picture.mp4"), {kStart + 4'000'000});
    ExpectRuns({"export", "out.mp4"});
    EXPECT_EQ(PacketsOf("out.mp4", "a"), PacketsOf("tone.mp4", "a"));
    EXPECT_NEAR(DurationOf("out.mp4"), 7, 0.1);
    EXPECT_NEAR(std::stod(Probe("out.mp4", "-select_streams v -show_entries stream=start_time")), 4, 0.03);
}

TEST_F(SpanTest, AnotherSizeOfPictureBeginsAnotherFile) {
    Make("small.mp4", Inputs("320x240", 3));
    Make("large.mp4", Inputs("640x480", 3));
    RecordMedia(*Recorder::instance(), folder.Path("small.mp4"), {kStart});
    RecordMedia(*Recorder::instance(), folder.Path("large.mp4"), {kStart + 3'200'000});
    const json files = Export({"out.mp4"});
    ASSERT_EQ(files.size(), 2U) << files;
    EXPECT_EQ(PacketsOf("out.mp4", "v"), PacketsOf("small.mp4", "v"));
    EXPECT_EQ(PacketsOf("out-2.mp4", "v"), PacketsOf("large.mp4", "v"));
    EXPECT_EQ(CountFrames("out-2.mp4"), 75U);
    EXPECT_EQ(PacketsOf("out.mp4", "a").size() + PacketsOf("out-2.mp4", "a").size(),
              PacketsOf("small.mp4", "a").size() + PacketsOf("large.mp4", "a").size());
    // Where there is one output only, it ends there and says so.
    Program pipe("/usr/bin/sh",
                 {"-c", CALVANE_EMULATOR " '" CALVANE_BIN_DIR
                                         "/calvane-recording-media' export --format mp4 - > pipe.mp4"},
                 folder.Path());
    EXPECT_EQ(pipe.Wait(), 1);
    EXPECT_THAT(pipe.Err(), HasSubstr("the video changes at 2026-01-01T10:00:03.1"));
    EXPECT_EQ(PacketsOf("pipe.mp4", "v"), PacketsOf("small.mp4", "v"));

    // With sound that changes within a group of pictures, video is there again from its key frame.
    Make("fast.mp4", "-f lavfi -i sine=sample_rate=44100:duration=1 -c:a aac");
    RecordMedia(*Recorder::instance(), folder.Path("fast.mp4"), {kStart + 7'000'000});
    const json more = Export({"more.mkv", "--from", "2026-01-01T10:00:05Z"});
    ASSERT_EQ(more.size(), 2U) << more;
    EXPECT_EQ(more[1]["records"]["audio"], PacketsOf("fast.mp4", "a").size());
}

TEST_F(SpanTest, MetadataGoesWithThePicturesWhereAFileCanHoldIt) {
    Make("in.mp4", Inputs("320x240", 3));
    Record("in.mp4");
    auto& track = Recorder::instance()->getTrack(quarn::calvane::METADATA_TRACK);
    const std::vector<std::string> texts{"{\"door\": \"open\"}", "Tür zu", std::string("\x01\x02", 2)};
    for (std::size_t i = 0; i != texts.size(); ++i) {
        const boost::posix_time::ptime time(
            boost::gregorian::date(2026, 1, 1),
            boost::posix_time::hours(10) + boost::posix_time::seconds(static_cast<int>(i)));
        ASSERT_TRUE(track.writeRecord(time, 1, texts[i].data(), texts[i].size()));
    }
    for (const std::string name : {"out.mkv", "out.mp4"}) {
        const Answer answer = Run({"export", "--track", "video,metadata", name});
        EXPECT_EQ(answer.status, 0);
        EXPECT_THAT(answer.err, HasSubstr("1 records of metadata were left out"));
        const Answer subtitles =
            RunTool("/usr/bin/ffmpeg", {"-v", "error", "-i", name, "-map", "0:s", "-f", "srt", "-"});
        EXPECT_THAT(subtitles.out, HasSubstr("00:00:00,000 --> 00:00:01,000\n{\"door\": \"open\"}"));
        EXPECT_THAT(subtitles.out, HasSubstr("00:00:01,000 --> 00:00:02,000\nTür zu"));
    }
    EXPECT_THAT(Run({"export", "out.ts"}).err, HasSubstr("3 records of metadata were left out"));
    EXPECT_EQ(Run({"export", "--track", "video,audio", "plain.ts"}).err, "");
}

} // namespace
