// Where there is data, why elsewhere there is none, and what the information service tells of it.

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <random>

#include "calvane/services/RecordingInformationImpl.h"
#include "recording/RecorderFixture.h"

using quarn::calvane::RecordHeader;
using quarn::calvane::RecordingInformationImpl;
using testing::ElementsAre;

namespace {

class Coverage : public RecorderTest {
protected:
    Coverage() { RecordingManager::init(); }

    static RecordingInformationImpl& Information() { return *RecordingManager::getInformationService(); }
    /// Recording, video, audio, metadata.
    static std::string StateAt(double time) {
        unsigned char out[4] = {9, 9, 9, 9};
        const auto [sec, usec] = Service(time);
        EXPECT_EQ(Information().getRecordingState(sec, usec, &out[0], &out[1], &out[2], &out[3]), 0U);
        return std::to_string(out[0]) + std::to_string(out[1]) + std::to_string(out[2]) +
               std::to_string(out[3]);
    }
};

TEST_F(Coverage, TheHistoryTellsWhereDataIsAndWhyItEnded) {
    Write(VIDEO_TRACK, {1, 2, 3, 4});
    Report(VIDEO_TRACK, 1, true);
    Report(VIDEO_TRACK, 4, false);
    Write(VIDEO_TRACK, {6, 7, 8});
    Report(VIDEO_TRACK, 6, true);
    Report(VIDEO_TRACK, 8, false, CoverageReason::Dropped);
    ProcessAt(10);
    Write(VIDEO_TRACK, {10, 11});
    Report(VIDEO_TRACK, 10, true);
    const std::vector<std::string> expected{"0..1 unknown",  "1..4 data",   "4..6 stopped",  "6..8 data",
                                            "8..10 dropped", "10..20 data", "20..30 unknown"};
    // At first the last event waits in the queue; the data ends at this moment, not at the last record.
    SetClock(20);
    EXPECT_EQ(RecorderTest::Coverage(VIDEO_TRACK, 0, 30), expected);
    ProcessAt(20);
    EXPECT_EQ(RecorderTest::Coverage(VIDEO_TRACK, 0, 30), expected);
    EXPECT_THAT(RecorderTest::Coverage(VIDEO_TRACK, 2, 3), ElementsAre("2..3 data"));
    EXPECT_THAT(RecorderTest::Coverage(VIDEO_TRACK, 5, 5), ElementsAre("5..5 stopped"));
    EXPECT_THAT(RecorderTest::Coverage(AUDIO_TRACK, 0, 30), ElementsAre("0..30 unknown"));
    const std::vector<std::pair<double, std::string>> states{
        {0.5, "0000"}, {1, "1100"},  {3.5, "1100"},  {5, "0000"},   {7.999999, "1100"},
        {9, "0000"},   {11, "1100"}, {19.5, "1100"}, {20.5, "0000"}};
    for (const auto& [time, state] : states) {
        EXPECT_EQ(StateAt(time), state) << time;
    }
    EXPECT_THROW(Recorder().getCoverage(VIDEO_TRACK, At(2), At(1)), std::invalid_argument);
    EXPECT_THROW(Recorder().getCoverage(VIDEO_TRACK, ptime(), At(1)), std::invalid_argument);
    EXPECT_THROW(Recorder().getCoverage(RecordingManager::kHistoryTrack, At(0), At(1)), std::out_of_range);
}

TEST_F(Coverage, RecordsTellWhereTheHistoryDoesNot) {
    // No event at all: records that are at most ten seconds apart belong together.
    Write(AUDIO_TRACK, {100, 105, 110, 115});
    Write(AUDIO_TRACK, {130}, RecordHeader::kDiscontinuity);
    Write(AUDIO_TRACK, {135, 160, 165});
    EXPECT_THAT(RecorderTest::Coverage(AUDIO_TRACK, 90, 200),
                ElementsAre("90..100 unknown", "100..115 data", "115..130 dropped", "130..135 data",
                            "135..160 unknown", "160..165 data", "165..200 unknown"));
    EXPECT_THAT(RecorderTest::Coverage(AUDIO_TRACK, 102, 103), ElementsAre("102..103 data"));
    EXPECT_THAT(RecorderTest::Coverage(AUDIO_TRACK, 120, 120), ElementsAre("120..120 dropped"));
    EXPECT_EQ(StateAt(112), "1010");
    EXPECT_EQ(StateAt(150), "0000");

    // What the limit of time has trimmed of the history follows from the next event.
    Report(VIDEO_TRACK, 100, true);
    ProcessAt(165);
    Write(VIDEO_TRACK, {170, 200, 300, 400});
    Report(VIDEO_TRACK, 400, false);
    ProcessAt(410);
    RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(230));
    EXPECT_THAT(RecorderTest::History(),
                ElementsAre("100 recording on", "400 video off", "400 recording off"));
    EXPECT_THAT(RecorderTest::Coverage(VIDEO_TRACK, 100, 410),
                ElementsAre("100..200 unknown", "200..400 data", "400..410 stopped"));
    EXPECT_EQ(StateAt(250), "1100");
    EXPECT_THAT(RecorderTest::Coverage(AUDIO_TRACK, 100, 170), ElementsAre("100..170 erased"));
}

TEST_F(Coverage, RecordsContradictAHistoryThatLostEventsToTheClock) {
    Write(VIDEO_TRACK, {1, 5});
    Report(AUDIO_TRACK, 0, true);
    Report(VIDEO_TRACK, 1, true);
    Report(VIDEO_TRACK, 5, false);
    Report(VIDEO_TRACK, 50, true);
    Write(VIDEO_TRACK, {50, 55, 60, 65, 70});
    ProcessAt(80);
    Write(VIDEO_TRACK, {62, 70, 75});
    EXPECT_THAT(RecorderTest::History(),
                ElementsAre("0 audio on", "0 recording on", "1 video on", "5 video off"));
    SetClock(80);
    RecordingManager::deinit(); // So that nothing counts as present.
    RecordingManager::init();
    EXPECT_THAT(RecorderTest::Coverage(VIDEO_TRACK, 0, 70),
                ElementsAre("0..1 unknown", "1..5 data", "5..50 stopped", "50..70 data"));
    EXPECT_EQ(StateAt(52), "1100");
    EXPECT_EQ(StateAt(30), "0000");
}

TEST_F(Coverage, RecordsBehindAnEndDoNotReachUpToTheNextBeginning) {
    Report(VIDEO_TRACK, 1, true);
    Write(VIDEO_TRACK, {1, 2});
    Report(VIDEO_TRACK, 2, false);
    Write(VIDEO_TRACK, {4, 5});
    Report(VIDEO_TRACK, 8, true);
    Write(VIDEO_TRACK, {8.5, 9});
    ProcessAt(10);
    EXPECT_THAT(RecorderTest::Coverage(VIDEO_TRACK, 1, 9),
                ElementsAre("1..2 data", "2..4 stopped", "4..5 data", "5..8 stopped", "8..9 data"));
    const std::vector<std::pair<double, std::string>> states{
        {1.5, "1100"}, {3, "0000"}, {4.5, "1100"}, {6, "0000"}, {8.5, "1100"}};
    for (const auto& [time, state] : states) {
        EXPECT_EQ(StateAt(time), state) << time;
    }
}

TEST_F(Coverage, WhatTheHistoryCallsPresentIsHeldAgainstTheRecords) {
    Report(AUDIO_TRACK, 100, true);
    Report(AUDIO_TRACK, 7300, false);
    Report(VIDEO_TRACK, 1, true);
    for (int i = 0; i < 60; ++i) {
        Write(VIDEO_TRACK, {1 + 0.5 * i});
    }
    Write(VIDEO_TRACK, {8000, 8000.5, 8001});
    ProcessAt(8005);
    const std::vector<std::string> expected{"0..1 unknown", "1..30.5 data", "30.5..8000 unknown",
                                            "8000..8005 data", "8005..8010 unknown"};
    EXPECT_EQ(RecorderTest::Coverage(VIDEO_TRACK, 0, 8010), expected);
    EXPECT_EQ(StateAt(4000), "0000");
    EXPECT_EQ(StateAt(8003), "1100");
    Write(AUDIO_TRACK, {8000});
    EXPECT_THAT(RecorderTest::Coverage(AUDIO_TRACK, 100, 7400),
                ElementsAre("100..7300 erased", "7300..7400 stopped"));
    Report(VIDEO_TRACK, 8006, false);
    Report(VIDEO_TRACK, 8008, true);
    ProcessAt(8100);
    // In pages of any size the spans are the same, in the end.
    for (unsigned max = 1; max < 9; ++max) {
        EXPECT_EQ(RecorderTest::Coverage(VIDEO_TRACK, 0, 8100, max),
                  RecorderTest::Coverage(VIDEO_TRACK, 0, 8100))
            << max;
    }
}

TEST_F(Coverage, AClockThatJumpsForwardLeavesAGapThatSaysSo) {
    Report(VIDEO_TRACK, 1, true);
    Write(VIDEO_TRACK, {1, 2, 3});
    steadyMicroseconds += 40000;
    SetClock(3603);
    ASSERT_TRUE(TrackOf(VIDEO_TRACK).writeRecord(At(3603), 0, "x", 1));
    Write(VIDEO_TRACK, {3604});
    Report(VIDEO_TRACK, 3604, false);
    ProcessAt(3610);
    EXPECT_THAT(RecorderTest::Coverage(VIDEO_TRACK, 1, 3604),
                ElementsAre("1..3 data", "3..3603 clock", "3603..3604 data"));
    // Records that are really far apart are none.
    Report(AUDIO_TRACK, 3700, true);
    Write(AUDIO_TRACK, {3700, 3800, 3900});
    EXPECT_THAT(RecorderTest::Coverage(AUDIO_TRACK, 3700, 3900), ElementsAre("3700..3900 data"));
}

TEST_F(Coverage, AFewRecordsAllTellWhatIsUsual) {
    Report(VIDEO_TRACK, 1, true);
    Write(VIDEO_TRACK, {1, 10, 10.5, 11, 11.5, 12, 72}); // A slow start.
    ProcessAt(72);
    EXPECT_THAT(RecorderTest::Coverage(VIDEO_TRACK, 1, 70), ElementsAre("1..12 data", "12..70 unknown"));
}

TEST_F(Coverage, SummariesTellTheSpanOfWhatIsKept) {
    unsigned out[4] = {9, 9, 9, 9};
    EXPECT_EQ(Information().getRecordingSummary(&out[0], &out[1], &out[2], &out[3]), 0U);
    EXPECT_THAT(out, ElementsAre(0, 0, 0, 0));
    Write(VIDEO_TRACK, {0.5, 60});
    Write(AUDIO_TRACK, {60, 70});
    Information().getRecordingSummary(&out[0], &out[1], &out[2], &out[3]);
    EXPECT_THAT(out, ElementsAre(kStart, 500000, kStart + 70, 0));
    EXPECT_EQ(Information().getTrackSummary(1, &out[0], &out[1], &out[2], &out[3]), 0U);
    EXPECT_THAT(out, ElementsAre(kStart + 60, 0, kStart + 70, 0));
    for (const unsigned type : {3U, 4294967295U}) {
        EXPECT_EQ(Information().getTrackSummary(type, &out[0], &out[1], &out[2], &out[3]), 1U);
        EXPECT_THAT(out, ElementsAre(0, 0, 0, 0));
    }
    EXPECT_EQ(Information().getTrackSummary(2, &out[0], &out[1], &out[2], &out[3]), 0U);
    EXPECT_THAT(out, ElementsAre(0, 0, 0, 0));
    // Set beforehand, due by now: the summary erases first.
    RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(1000));
    SetClock(1065);
    Information().getRecordingSummary(&out[0], &out[1], &out[2], &out[3]);
    EXPECT_THAT(out, ElementsAre(kStart + 70, 0, kStart + 70, 0));
    SetClock(2000);
    Information().getRecordingSummary(&out[0], &out[1], &out[2], &out[3]);
    EXPECT_THAT(out, ElementsAre(0, 0, 0, 0));
    RecordingInformationImpl::updateRange(ptime(), ptime(boost::posix_time::neg_infin), out[0], out[1],
                                          out[2], out[3]);
    EXPECT_THAT(out, ElementsAre(2077252342, 775806, 2217714954, 4294191488));
    RecordingInformationImpl::updateInfoRange(ptime(boost::posix_time::pos_infin), out[0], out[1],
                                              ptime(boost::gregorian::date(2014, 1, 1)), out[2], out[3]);
    EXPECT_THAT(out, ElementsAre(2077252342, 775807, 1388534400, 0));
}

TEST_F(Coverage, WhatIsTooMuchIsErasedAndTheReasonIsTheLimit) {
    constexpr std::uint64_t kMebibyte = 1U << 20U;
    const std::string large(kMebibyte, 'x');
    Report(VIDEO_TRACK, 0, true);
    for (int i = 0; i != 40; ++i) {
        Advance(2 * i);
        ASSERT_TRUE(TrackOf(VIDEO_TRACK).writeRecord(At(2 * i), 0, large.data(), large.size()));
    }
    Write(AUDIO_TRACK, {78});
    ProcessAt(80);
    Restart(); // All of it is in segments that are complete, whose number grows no more.
    const auto used = [] { return quarn::calvane::GetRecordingStatus().used; };
    ASSERT_GT(used().data, 40 * kMebibyte);
    RecordingManager::setMaxSpace({41 * kMebibyte, kMebibyte});
    EXPECT_EQ(TimesOf(VIDEO_TRACK).front(), 0);
    RecordingManager::setMaxSpace({19 * kMebibyte + 1, kMebibyte});
    EXPECT_EQ(RecordingManager::getMaxSpace().data, 20 * kMebibyte);
    EXPECT_LE(used().data, 20 * kMebibyte);
    EXPECT_GT(used().data, 3 * kMebibyte); // No more than has to go: a segment has 16 MiB and a record.
    const std::vector<double> times = TimesOf(VIDEO_TRACK);
    const double first = times.front();
    EXPECT_GE(first, 40);
    EXPECT_EQ(times.back(), 78);

    const auto coverage = [&] { return RecorderTest::Coverage(VIDEO_TRACK, 0, 78); };
    const std::string rest = Number(first) + "..78 data";
    EXPECT_THAT(coverage(), ElementsAre("0.." + Number(first) + " space limit", rest));
    RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(77)); // Back to 3.
    EXPECT_THAT(coverage(), ElementsAre("0..3 erased", "3.." + Number(first) + " space limit", rest));
    RecordingManager::setMaxSpace({}); // Nothing tells of that limit any more, nor of when the data began.
    EXPECT_THAT(coverage(), ElementsAre("0.." + Number(first) + " unknown", rest));
}

// Answers about the same time, before others were asked about and after a start anew.
TEST_F(Coverage, WhatTheHistorySaysOfATimeDoesNotDependOnEarlierQuestions) {
    Report(VIDEO_TRACK, 0, true);
    Write(VIDEO_TRACK, {0, 5});
    Report(VIDEO_TRACK, 5, false);
    Write(VIDEO_TRACK, {18}); // As a recorder leaves it that was killed before it wrote the event.
    Report(AUDIO_TRACK, 20, true);
    Write(VIDEO_TRACK, {22});
    Report(VIDEO_TRACK, 30, true);
    Write(VIDEO_TRACK, {30, 31});
    ProcessAt(33);
    StateAt(25);
    const std::string between = StateAt(19); // All recording started behind it.
    Restart();
    EXPECT_EQ(StateAt(19), between);
}

TEST_F(Coverage, EventsThatAreHiddenDoNotTellAnyMore) {
    Report(AUDIO_TRACK, 0, true); // So that the recording as a whole goes on.
    Report(VIDEO_TRACK, 0, true);
    Write(VIDEO_TRACK, {0, 50, 100});
    Report(VIDEO_TRACK, 100, false);
    Report(VIDEO_TRACK, 200, true);
    Write(VIDEO_TRACK, {200, 250, 300});
    ProcessAt(302);
    RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(400));
    const auto ask = [] {
        EXPECT_EQ(StateAt(160), "0000"); // Hides what is too old.
        return RecorderTest::Coverage(VIDEO_TRACK, 160, 160);
    };
    EXPECT_THAT(ask(), ElementsAre("160..160 stopped"));
    SetClock(550); // It is hidden, but not yet time to erase.
    EXPECT_THAT(ask(), ElementsAre("160..160 unknown"));
}

TEST_F(Coverage, WhatIsTooOldIsHiddenAtOnceAndErasedInBatches) {
    unsigned out[4] = {};
    const auto ask = [&](double time) {
        SetClock(time);
        Information().getTrackSummary(1, &out[0], &out[1], &out[2], &out[3]);
        return out[0] == 0 ? 0 : out[0] - kStart;
    };
    RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(100));
    Report(AUDIO_TRACK, 1, true);
    Write(AUDIO_TRACK, {1, 2, 3});
    ProcessAt(5);
    EXPECT_EQ(ask(102.5), 3U);
    EXPECT_EQ(SizeOf(AUDIO_TRACK), 3U);
    EXPECT_THAT(RecorderTest::History(), testing::IsEmpty());
    EXPECT_EQ(StateAt(1.5), "0000");
    EXPECT_EQ(TrackOf(AUDIO_TRACK).getFirstIndexNotBefore(At(0)), 2U);
    EXPECT_THROW(TrackOf(AUDIO_TRACK).getTrackIndex(At(2)), std::out_of_range);
    TrackOf(AUDIO_TRACK).getTrack()->eraseRange(0, 1);
    EXPECT_EQ(TrackOf(AUDIO_TRACK).getFirstIndexNotBefore(At(0)), 1U);
    steadyMicroseconds += 10'000'000;
    EXPECT_EQ(ask(102.5), 3U);
    EXPECT_EQ(SizeOf(AUDIO_TRACK), 1U);
    EXPECT_EQ(ask(200), 0U);
    // What is hidden counts all the same where times must not fall.
    Write(AUDIO_TRACK, {2.9});
    EXPECT_THAT(TimesOf(AUDIO_TRACK), ElementsAre(2.9));
}

TEST_F(Coverage, AGapWithinASegmentIsNoDataAndOtherwiseNothingIsRead) {
    WriteSeveralSegments([](int number) { return number < 50 ? 1 + 5 * number : 1001 + 5 * number; });
    Report(VIDEO_TRACK, 1, true);
    ProcessAt(3000);
    const auto stepAt = [this](double time) {
        const auto known = TrackOf(VIDEO_TRACK).findKnownAround(At(time));
        return known ? known->step : boost::posix_time::time_duration();
    };
    EXPECT_EQ(stepAt(100), boost::posix_time::seconds(1005));
    EXPECT_EQ(StateAt(100), "1100");
    EXPECT_EQ(StateAt(500), "0000");
    EXPECT_EQ(stepAt(1500), boost::posix_time::seconds(5));
    EXPECT_EQ(StateAt(1500), "1100");
    // What was erased is a gap, too.
    TrackOf(VIDEO_TRACK).getTrack()->eraseRange(90, 130);
    EXPECT_GT(stepAt(1500), boost::posix_time::seconds(100));
    EXPECT_EQ(StateAt(1500), "0000");
}

TEST_F(Coverage, AGapThatWasFoundLiesBetweenTheRecordsOfNow) {
    Write(VIDEO_TRACK, {1, 2, 3, 4, 1001, 1002, 2001, 2002});
    const auto around = [](double time) {
        const auto found = TrackOf(VIDEO_TRACK).findAround(At(time));
        return found ? Number(SecondsOf(found->before)) + " " + Number(SecondsOf(found->behind)) : "";
    };
    const auto erase = [](unsigned first, unsigned last) {
        TrackOf(VIDEO_TRACK).getTrack()->eraseRange(first, last);
    };
    for (int times = 0; times < 2; ++times) {
        EXPECT_EQ(around(500), "4 1001");
        EXPECT_EQ(around(1001), "1001 1001");
        EXPECT_EQ(around(1500), "1002 2001");
    }
    erase(0, 1);
    EXPECT_EQ(around(500), "4 1001");
    erase(3, 5); // What was between two gaps.
    EXPECT_EQ(around(1500), "4 2001");
    EXPECT_EQ(around(500), "4 2001");
    erase(2, 3);
    EXPECT_EQ(around(500), "3 2001");
    erase(2, 3);
    EXPECT_EQ(around(500), "3 2002");
    TrackOf(VIDEO_TRACK).hideBefore(At(100));
    EXPECT_EQ(around(500), "");
}

// Most questions about one time are answered by the records next to it.
TEST_F(Coverage, OneTimeIsToldAsTheSpanAroundIt) {
    std::mt19937 random(11);
    const auto below = [&random](unsigned end) { return static_cast<unsigned>(random() % end); };
    double time = 1;
    while (time < 10000) {
        const bool isReported = below(4) != 0;
        if (isReported) {
            Report(VIDEO_TRACK, time, true);
        }
        for (unsigned left = below(12); left != 0; --left) {
            Write(VIDEO_TRACK, {time});
            time += below(8) == 0 ? 300 + below(60) : 0.5 + below(4);
        }
        if (isReported && below(4) != 0) {
            Report(VIDEO_TRACK, time, false);
        }
        time += below(3) * 20;
        if (below(5) == 0) {
            ProcessAt(time);
            Restart();
        }
    }
    ProcessAt(time);
    const auto spans = Recorder().getCoverage(VIDEO_TRACK, At(0), At(time));
    const std::vector<double> times = TimesOf(VIDEO_TRACK);
    std::map<CoverageReason, int> seen;
    for (int i = 0; i < 3000; ++i) {
        const double record = times[below(static_cast<unsigned>(times.size()) - 20)];
        const ptime t = At(std::abs(record + 0.1 * below(400) - 19.95));
        const auto span =
            std::find_if(spans.begin(), spans.end(), [&](const auto& each) { return t < each.end; });
        ASSERT_NE(span, spans.end());
        EXPECT_EQ(Recorder().getCoverage(VIDEO_TRACK, t, t).front().reason, span->reason) << t;
        ++seen[span->reason];
    }
    EXPECT_GE(seen.size(), 3U);
    EXPECT_GT(seen[CoverageReason::Data], 500);
    EXPECT_GT(seen[CoverageReason::Stopped], 500);
}

TEST_F(Coverage, WhatIsHiddenIsNotTakenFromWhatTheStoreKnows) {
    RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(100));
    WriteSeveralSegments([](int number) { return 1 + 0.02 * number; });
    Report(VIDEO_TRACK, 1, true);
    ProcessAt(10);
    ASSERT_TRUE(TrackOf(VIDEO_TRACK).findKnownAround(At(2)));
    EXPECT_EQ(StateAt(2), "1100");
    SetClock(105);
    EXPECT_EQ(StateAt(2), "0000");
    EXPECT_FALSE(TrackOf(VIDEO_TRACK).findKnownAround(At(2)));
    EXPECT_EQ(StateAt(5.5), "1100");
}

TEST_F(Coverage, AttributesComeWithTheRangeThatTheyHoldFor) {
    unsigned out[8] = {};
    double rate = 0;
    const auto video = [&](unsigned second) {
        return Information().getVideoAttributes(kStart + second, 0, &out[0], &out[1], &out[2], &out[3], &rate,
                                                &out[4], &out[5], &out[6], &out[7]);
    };
    const auto audio = [&](unsigned second) {
        return Information().getAudioAttributes(kStart + second, 0, &out[0], &out[1], &rate, &out[2], &out[3],
                                                &out[4], &out[5]);
    };
    EXPECT_EQ(ThrownText<std::runtime_error>([&] { video(1); }), "Error fetching video track info: No data");
    EXPECT_EQ(ThrownText<std::runtime_error>([&] { audio(1); }), "Error fetching audio track info: No data");
    TrackOf(VIDEO_TRACK)
        .setInfo({{"Encoding", "7"},
                  {"Width", "1920"},
                  {"Height", "1080"},
                  {"Bitrate", "4000000"},
                  {"FrameRateMilliHz", "29970"}});
    Write(VIDEO_TRACK, {1, 2});
    TrackOf(VIDEO_TRACK).setInfo({{"Encoding", "H264"}, {"Width", "1920"}, {"Height", "1080"}});
    Write(VIDEO_TRACK, {3});
    TrackOf(VIDEO_TRACK).setInfo({{"Encoding", "7"}, {"Width", "-1"}, {"Height", "1080"}});
    Write(VIDEO_TRACK, {4});
    EXPECT_EQ(video(2), 0U);
    EXPECT_THAT(out, ElementsAre(7, 1920, 1080, 4000000, kStart + 1, 0, kStart + 2, 0));
    EXPECT_DOUBLE_EQ(rate, 29.97);
    EXPECT_EQ(ThrownText<std::runtime_error>([&] { video(3); }), "Unsupported recording format encountered");
    EXPECT_EQ(ThrownText<std::runtime_error>([&] { video(4); }),
              "Error fetching video track info: \"Width\" is \"-1\", which is not a number");
    TrackOf(AUDIO_TRACK)
        .setInfo({{"BitsPerSample", "16"}, {"NumChannels", "2"}, {"SampleFreq", "44100.5"}, {"Format", "3"}});
    Write(AUDIO_TRACK, {10, 10.25});
    TrackOf(AUDIO_TRACK).setInfo({{"BitsPerSample", "16"}, {"SampleFreq", "44100"}, {"Format", "3"}});
    Write(AUDIO_TRACK, {11});
    EXPECT_EQ(audio(10), 0U);
    EXPECT_EQ(out[0], 16U);
    EXPECT_EQ(out[1], 2U);
    EXPECT_DOUBLE_EQ(rate, 44100.5);
    EXPECT_THAT(std::vector<unsigned>(out + 2, out + 6), ElementsAre(kStart + 10, 0, kStart + 10, 250000));
    EXPECT_EQ(ThrownText<std::runtime_error>([&] { audio(11); }),
              "Error fetching audio track info: \"NumChannels\" is missing");
}

TEST_F(Coverage, ClientsAreToldOfDataThatComesGoesAndIsErased) {
    auto connection = sdbus::createSessionBusConnectionWithAddress(bus.Address());
    auto proxy = sdbus::createProxy(*connection, "com.drenn.recording_information",
                                    "/com/drenn/recording_information");
    std::mutex mutex;
    std::vector<std::string> lines;
    const auto note = [&](const std::string& line) {
        const std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(line);
    };
    proxy->uponSignal("dataPresent")
        .onInterface("com.drenn.RecordingInformation1")
        .call([&](std::uint32_t type, std::uint8_t present) {
            note(std::to_string(type) + (present != 0 ? " on" : " off"));
        });
    proxy->uponSignal("dataDeleted")
        .onInterface("com.drenn.RecordingInformation1")
        .call([&](std::uint32_t type, std::uint32_t s, std::uint32_t us, std::uint32_t endS,
                  std::uint32_t endUs) {
            note(std::to_string(type) + " deleted " + std::to_string(s - kStart) + "." + std::to_string(us) +
                 " to " + std::to_string(endS - kStart) + "." + std::to_string(endUs));
        });
    proxy->finishRegistration();
    connection->enterEventLoopAsync();
    Report(AUDIO_TRACK, 1, true);
    Report(RecordingManager::kHistoryTrack, 1, true);
    Write(AUDIO_TRACK, {0, 1, 2, 3, 4, 5, 6.25, 7, 8.5});
    auto track = TrackOf(AUDIO_TRACK).getTrack();
    track->eraseRange(5, 6);
    track->eraseRange(5, 8);
    Recorder().writeHistoryRecord(At(1), "");
    TrackOf(RecordingManager::kHistoryTrack).clearTrack();
    Report(AUDIO_TRACK, 1, false);
    EXPECT_TRUE(WaitUntil([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return lines.size() >= 4;
    }));
    connection->leaveEventLoop();
    EXPECT_THAT(lines,
                ElementsAre("1 on", "1 deleted 5.0 to 5.0", "1 deleted 6.250000 to 8.500000", "1 off"));
}

} // namespace
