#include <regex>

#include "recorder/RecorderFixture.h"
#include "support/Emulation.h"

namespace {

using testing::HasSubstr;

TEST_F(RecorderTest, WithoutAUsableCardItAnswersAndSaysWhatToDo) {
    std::filesystem::remove(folder.Path("card"));
    StartAndWait({}, 1);
    EXPECT_EQ(AskJson({"status"})["problem"], "there is no card");
    const Answer disabled = Ask({"summary"});
    EXPECT_EQ(disabled.status, 1);
    EXPECT_EQ(disabled.err, "calvane-recording: Recording is currently disabled\n");
    std::filesystem::create_directory(folder.Path("card")); // It is taken up when it comes.
    EXPECT_TRUE(WaitUntil([&] { return Ask({"summary"}).out == "Nothing is recorded\n"; }));
    EXPECT_EQ(Stop(), 0);
    EXPECT_THAT(recorder->Err(), HasSubstr("No SD Card!"));
    EXPECT_THAT(recorder->Err(), HasSubstr("There is no card at " + folder.Path("card")));

    std::filesystem::remove_all(folder.Path("card"));
    std::filesystem::create_directory(folder.Path("card"));
    folder.Write("card/holiday.jpg", "x");
    StartAndWait(kDescription, 1); // The pipelines run, and their sinks drop.
    EXPECT_EQ(Ask({"tracks"}).err, "calvane-recording: Recording is currently disabled\n");
    EXPECT_EQ(Stop(), 0);
    EXPECT_THAT(recorder->Err(), HasSubstr("holds other things than \"data\" and \"database\""));
    EXPECT_TRUE(folder.Has("card/holiday.jpg"));
    EXPECT_FALSE(folder.Has("card/data"));

    const std::vector<std::string> toFile{"--root", card, "--log-file", "log"};
    recorder = std::make_unique<Program>("calvane-recorder", toFile, folder.Path());
    ASSERT_TRUE(
        WaitUntil([&] { return folder.Read("log").find("holds other things") != std::string::npos; }));
    std::filesystem::rename(folder.Path("log"), folder.Path("log.1"));
    recorder->Signal(SIGHUP);
    EXPECT_TRUE(WaitUntil([&] { return folder.Has("log"); }));
    EXPECT_EQ(Stop(), 0);
}

TEST_F(RecorderTest, HangUpTakesOverAChangedDescriptionAndNeverEndsRecording) {
    const std::string path = DescribeVideo("bytes.min = 1000\ntrack = video\n");
    const std::string first = folder.Read("video.ini");
    StartAndWait(path);
    const auto recordsMore = [&](const std::string& track) {
        const json before = AskJson({"status"})["tracks"][track]["records"];
        return WaitUntil([&] { return AskJson({"status"})["tracks"][track]["records"] > before; });
    };
    const auto hangUp = [&](const std::string& description, const std::string& answer) {
        folder.Write("video.ini", description);
        recorder->Signal(SIGHUP);
        return WaitUntil([&] { return recorder->Err().find(answer) != std::string::npos; });
    };
    const auto changed = [&](const std::string& old, const std::string& text) {
        return std::regex_replace(first, std::regex(old), text);
    };
    EXPECT_TRUE(recordsMore("video"));
    EXPECT_TRUE(hangUp(first + "; the same\n", "video.ini says the same as before"));
    EXPECT_TRUE(hangUp("[calvane", "video.ini:1: "));
    EXPECT_TRUE(hangUp(changed("track = video", "track = vidio"), "\"vidio\" is none of"));
    EXPECT_TRUE(hangUp(changed("bytes.min = 1000", "bytes.min = 1000\nbytes.max = 999"),
                       "those that ran are started again"));
    EXPECT_TRUE(recordsMore("video"));
    EXPECT_EQ(AskJson({"coverage", "--track", "video"})["video"].size(), 3) << "only one change was tried";

    EXPECT_TRUE(hangUp(changed("track = video", "track = audio"), "pipelines replace those that run"));
    EXPECT_TRUE(recordsMore("audio"));
    EXPECT_EQ(AskJson({"state"})["video"], false);
    ExpectRecordsAreRight("audio");
    EXPECT_EQ(Stop(), 0);
    ExpectStoreIsGood();
}

TEST_F(RecorderTest, RefusesWhatIsWrongByName) {
    const std::string bad = folder.Write("bad.ini",
                                         "[calvane]\nt.pipelines = p\n[p]\nt.pipeline.head = s\n[s]\n"
                                         "t.plugin.type = RecordingSink\nt.plugin.module = recording.so\n"
                                         "track = vidio\n");
    Start(bad);
    EXPECT_EQ(recorder->Wait(), 2);
    EXPECT_THAT(recorder->Err(), HasSubstr(bad + ":8: [s] track: "));
    EXPECT_THAT(recorder->Err(), HasSubstr("track: \"vidio\" is none of video, audio, metadata"));
    Start(folder.Path("absent.ini"));
    EXPECT_EQ(recorder->Wait(), 2);
    EXPECT_THAT(recorder->Err(), HasSubstr("absent.ini"));
    EXPECT_EQ(Ask({"state", "--at", "sunday"}).status, 2);
    EXPECT_EQ(Ask({"coverage", "--from", "now", "--to", "-5s"}).status, 2);
    EXPECT_EQ(Ask({"read", "--track", "smell"}).status, 2);
    EXPECT_EQ(Ask({"read", "--track", "video", "--json"}).status, 2);
    EXPECT_EQ(
        Ask({"coverge"}).err,
        "calvane-recording: unknown command coverge (did you mean \"coverage\"?) (see calvane-recording "
        "--help)\n");
    EXPECT_THAT(Ask({"summary"}).err, HasSubstr("start calvane-recorder"));
    bus.Signal(SIGSTOP); // It accepts, and answers nothing.
    Start();
    EXPECT_EQ(recorder->Wait(), 1);
    EXPECT_THAT(recorder->Err(), HasSubstr("Cannot use the bus (session): Connection timed out"));
    bus.Kill();
    Start();
    EXPECT_EQ(recorder->Wait(), 1);
    EXPECT_THAT(recorder->Err(), HasSubstr("Cannot use the bus (session)"));
    const Answer noBus = Ask({"summary"});
    EXPECT_EQ(noBus.status, 1);
    EXPECT_THAT(noBus.err, HasSubstr("Cannot use the bus (session)"));
}

TEST_F(RecorderTest, KilledWhileItRecordsItLosesLittleAndRepairsTheHistory) {
    StartAndWait(kDescription);
    ASSERT_TRUE(WaitUntil([&] { return CountRecords("audio") > 120; }));
    const std::size_t seen = CountRecords("video");
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // What a killed process may lose.
    recorder->Signal(SIGKILL);
    recorder->Wait();

    StartAndWait();
    EXPECT_GE(CountRecords("video"), seen);
    for (const char* const track : {"video", "audio", "metadata"}) {
        ExpectRecordsAreRight(track);
    }
    // Each track's end is dated like its last record, and written after its hold time.
    ASSERT_TRUE(WaitUntil([&] { return AskJson({"history"})["events"].size() == 8; }));
    const json tracks = AskJson({"tracks"});
    int ends = 0;
    const json history = AskJson({"history"});
    for (const json& event : history["events"]) {
        if (event["event"] == "data" && event["present"] == false) {
            ++ends;
            EXPECT_EQ(event["time"], tracks[event["track"].get<std::string>()]["last"]);
        }
    }
    EXPECT_EQ(ends, 3) << history.dump(1);
    EXPECT_EQ(AskJson({"coverage", "--track", "video"})["video"].back()["reason"], "interrupted");
    const std::string first = tracks["video"]["first"];
    EXPECT_EQ(AskJson({"state", "--at", first})["video"], true);
    EXPECT_EQ(AskJson({"state"})["video"], false);
    EXPECT_EQ(AskJson({"attributes", "--at", first})["video"]["width"], 1920);
    EXPECT_EQ(Stop(), 0);
    ExpectStoreIsGood();
}

TEST_F(RecorderTest, RetentionSetWhileItRecordsErasesAndIsTold) {
    StartAndWait(kDescription);
    Program watch("calvane-recording", {"watch", "--json"}, folder.Path());
    ASSERT_TRUE(WaitUntil([&] { return CountRecords("audio") > 150; }));
    const json before = AskJson({"summary"});
    const json status = AskJson({"status"});
    EXPECT_EQ(status["state"], "recording");
    EXPECT_GT(status["tracks"]["audio"]["records"], 100);
    EXPECT_GT(status["bytesPerHour"], status["tracks"]["video"]["bytesPerHour"]);
    EXPECT_LT(status["card"]["usableBytes"], status["card"]["bytes"]);
    Program properties("/usr/bin/gdbus",
                       {"monitor", "--address", bus.Address(), "-d", "com.drenn.recording_control"},
                       folder.Path());
    EXPECT_EQ(AskJson({"retention", "set", "1s"})["seconds"], 1.0);
    EXPECT_TRUE(WaitUntil(
        [&] { return properties.Out().find("'MaximumRetention': <uint64 1000000>") != std::string::npos; }));
    const json limits =
        AskJson({"retention", "set", "--data", "3GiB", "--history", "1kB"}); // Kept in whole MiB.
    EXPECT_EQ(limits["data"], 3U << 30U);
    EXPECT_EQ(limits["history"], 1U << 20U);
    EXPECT_EQ(limits["seconds"], 1.0);
    EXPECT_EQ(AskJson({"status"})["space"]["data"]["limit"], 3U << 30U);
    EXPECT_TRUE(WaitUntil([&] {
        return properties.Out().find("'MaximumSpace': <(uint64 3221225472, uint64 1048576)>") !=
               std::string::npos;
    }));
    properties.Signal(SIGTERM);
    const std::vector<std::string> inFile{"retention", "--settings", folder.Path("settings.db")};
    EXPECT_EQ(AskJson(inFile), limits);
    ASSERT_TRUE(WaitUntil([&] { return AskJson({"summary"})["first"] > before["first"]; }));
    EXPECT_TRUE(
        WaitUntil([&] { return watch.Out().find("\"event\":\"dataDeleted\"") != std::string::npos; }));
    EXPECT_THAT(watch.Out(), HasSubstr("\"time\":\"20"));
    EXPECT_EQ(Ask({"retention", "set", "none", "--data", "0", "--history", "0"}).out,
              "Recorded data is kept as long as there is room\n");
    EXPECT_EQ(Ask({"retention", "set", "soon"}).status, 2);
    bus.Signal(SIGSTOP); // Nobody waits for it.
    EXPECT_EQ(Stop(), 0);
    ExpectStoreIsGood();
}

TEST_F(RecorderTest, TheDemonstrationEndsWell) {
    SKIP_WHEN_EMULATED("the demonstration starts the programs itself");
    Program demo("/usr/bin/env",
                 {"bash", "-c",
                  "PATH=" CALVANE_BIN_DIR ":$PATH exec " CALVANE_SOURCE_DIR "/examples/record-demo.sh 2 " +
                      folder.Path("demo")},
                 folder.Path());
    EXPECT_EQ(demo.Wait(), 0) << demo.Err();
    EXPECT_THAT(demo.Out(), HasSubstr("All records are right."));
}

} // namespace

TEST_F(RecorderTest, WhatIsRecordedPlaysIntoAPipeline) {
    const auto play = [&](const std::string& settings) {
        return std::make_unique<Program>(
            "calvane",
            std::vector<std::string>{
                "run", folder.Write("play.ini",
                                    "[calvane]\nt.pipelines = p\n[p]\nt.pipeline.head = s\n[s]\n"
                                    "t.plugin.type = RecordingSource\nt.plugin.module = recording.so\n"
                                    "t.pipeline.next.video = v\nt.pipeline.next.audio = a\n" +
                                        settings +
                                        "[v]\nt.plugin.type = FileSink\nfilename = video.bin\n"
                                        "[a]\nt.plugin.type = FileSink\nfilename = audio.bin\n")},
            folder.Path());
    };
    const auto missing = play("");
    EXPECT_EQ(missing->Wait(), 1);
    EXPECT_THAT(missing->Err(), HasSubstr("does not run"));

    StartAndWait(kDescription);
    ASSERT_TRUE(WaitUntil([&] { return CountRecords("audio") > 100; }));
    const json span = AskJson({"tracks"})["video"];
    const std::string from = span["first"];
    const std::string to = span["last"];
    const auto whole = play("realtime = 0\nfrom = " + from + "\nto = " + to + "\n");
    EXPECT_EQ(whole->Wait(), 0) << whole->Err();
    for (const std::string track : {"video", "audio"}) {
        const Answer read = Ask({"read", "--track", track, "--from", from, "--to", to});
        EXPECT_TRUE(folder.Read(track + ".bin") == read.out && read.out.size() > 10000) << track;
    }
    // Its own time has it wait; a recorder that does not answer any more does not keep it from ending.
    std::filesystem::remove(folder.Path("video.bin"));
    const auto slow = play("");
    ASSERT_TRUE(WaitUntil([&] {
        return std::filesystem::exists(folder.Path("video.bin")) && folder.Read("video.bin").size() > 5000;
    }));
    recorder->Signal(SIGSTOP);
    slow->Signal(SIGTERM);
    EXPECT_EQ(slow->Wait(), 0) << slow->Err();
    recorder->Signal(SIGCONT);
    EXPECT_LT(folder.Read("video.bin").size(), Ask({"read", "--track", "video"}).out.size());
    EXPECT_EQ(Stop(), 0);
}
