// The history's texts, order and repair.

#include "recording/RecorderFixture.h"

using drenn::api::ServiceCursor;
using drenn::api::ServiceTime;
using quarn::calvane::RecordingDataAccessImpl;
using quarn::core::LogCapture;
using quarn::core::LogLevel;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class History : public RecorderTest {
protected:
    History() { RecordingManager::init(); }

    /// As service events have it: without the reason.
    static std::string Line(const drenn::api::HistoryEvent& event) {
        const ptime time = At(event.time.sec - kStart) + boost::posix_time::microseconds(event.time.usec);
        return Describe(
            {time, event.eventType == 1, event.present == 1, static_cast<track_type>(event.trackType)});
    }
    std::vector<std::string> Pages(double from, double to, bool backward, unsigned max) {
        std::vector<std::string> lines;
        ServiceCursor cursor{Service(backward ? to : from), 0};
        for (unsigned char more = 1; more != 0;) {
            std::vector<drenn::api::HistoryEvent> state;
            std::vector<drenn::api::HistoryEvent> events;
            service.findHistory(Service(from), Service(to), backward ? 1 : 0, max, cursor, &state, &events,
                                &cursor, &more);
            for (const auto& event : state) {
                lines.push_back("state " + Line(event));
            }
            for (const auto& event : events) {
                lines.push_back(Line(event));
            }
            EXPECT_LE(events.size(), max);
        }
        return lines;
    }
    ServiceTime First() {
        ServiceTime time{9, 9};
        service.getFirstRecordingHistoryEventTime(&time.sec, &time.usec);
        return time;
    }

    RecordingDataAccessImpl service{nullptr}; // Beside the one on the bus.
};

TEST_F(History, AnInfoMapIsTextWithALineForEachKeyAndValue) {
    const RecordingManager::InfoMap info{{"TrackType", "0"}, {"EventType", "1"}, {"TrackDataPresent", "1"}};
    std::string text = "old";
    RecordingManager::serializeTrackInfo(info, text);
    EXPECT_EQ(text, "EventType\n1\nTrackDataPresent\n1\nTrackType\n0\n");
    const LogCapture capture(LogLevel::Debug);
    RecordingManager::InfoMap parsed{{"old", "1"}};
    RecordingManager::deserializeTrackInfo(text, parsed);
    EXPECT_EQ(parsed, info);
    EXPECT_TRUE(capture.Contains("found 3 key/value pairs"));
    EXPECT_TRUE(capture.Contains("adding to map: TrackType == 0"));
    RecordingManager::deserializeTrackInfo("", parsed);
    EXPECT_THAT(parsed, IsEmpty());
    RecordingManager::deserializeTrackInfo("a\n\na\n2\n", parsed);
    EXPECT_EQ(parsed, (RecordingManager::InfoMap{{"a", "2"}}));
    EXPECT_EQ(
        ThrownText<std::runtime_error>([&] { RecordingManager::deserializeTrackInfo("a\nb\nc\n", parsed); }),
        "Format error in recorded data: 3 elements found");
    EXPECT_EQ(ThrownText<std::runtime_error>([&] { RecordingManager::deserializeTrackInfo("a\nb", parsed); }),
              "Format error in recorded data: 1 elements found");
}

TEST_F(History, EventsAreWrittenInOrderOnceTheyAreOldEnough) {
    Report(AUDIO_TRACK, 0, true);
    Report(VIDEO_TRACK, -0.1, true);
    ProcessAt(1.399999);
    EXPECT_THAT(RecorderTest::History(), IsEmpty());
    ProcessAt(1.4);
    EXPECT_THAT(RecorderTest::History(), ElementsAre("-0.1 video on", "-0.1 recording on"));
    ProcessAt(1.5);
    Report(AUDIO_TRACK, 5, false);
    Report(VIDEO_TRACK, 5, false, CoverageReason::Dropped);
    ProcessAt(10);
    EXPECT_THAT(RecorderTest::History(), ElementsAre("-0.1 video on", "-0.1 recording on", "0 audio on",
                                                     "5 audio off", "5 video off 4", "5 recording off"));
    // Header and text as they stand on the card.
    drenn::multi_track_recorder::BlobRecord record;
    auto track = TrackOf(RecordingManager::kHistoryTrack).getTrack();
    track->seekg(3);
    *track >> record;
    const auto& blobs = record.blobs();
    ASSERT_EQ(blobs.size(), 2U);
    EXPECT_EQ(std::string(blobs[0].data(), blobs[0].data() + 8), std::string("\1\1\0\0\0\0\0\0", 8));
    EXPECT_EQ(std::string(blobs[1].data(), blobs[1].data() + blobs[1].size()),
              "EventType\n1\nTrackDataPresent\n0\nTrackType\n1\n");
}

TEST_F(History, LateEventsNeverEraseAndFutureOnesDoNotWait) {
    Write(VIDEO_TRACK, {1, 2, 3, 4});
    Report(VIDEO_TRACK, 4, true);
    ProcessAt(6);
    const LogCapture capture(LogLevel::Information);
    Report(AUDIO_TRACK, 3, true);
    ProcessAt(8);
    EXPECT_THAT(RecorderTest::History(), ElementsAre("4 video on", "4 recording on", "4 audio on"));
    EXPECT_EQ(SizeOf(VIDEO_TRACK), 4U);
    EXPECT_THAT(capture.GetLines(), IsEmpty());

    // The clock is ten years ahead for a while.
    constexpr double kTenYears = 10 * 365.0 * 86400;
    Write(VIDEO_TRACK, {kTenYears});
    Report(AUDIO_TRACK, kTenYears, false);
    ProcessAt(kTenYears + 2);
    Report(AUDIO_TRACK, kTenYears + 2, true);
    Write(VIDEO_TRACK, {20, 21, 22});
    ProcessAt(22);
    ProcessAt(24);
    EXPECT_THAT(TimesOf(VIDEO_TRACK), ElementsAre(1, 2, 3, 20, 21, 22));
    EXPECT_THAT(RecorderTest::History(), testing::Contains("22 audio on"));
    EXPECT_EQ(SizeOf(VIDEO_TRACK), 6U);
    // An event of a clock that was never set is dropped.
    const auto before = RecorderTest::History();
    Recorder().queueTrackRecordingHistoryRecord(ptime(boost::gregorian::date(1970, 1, 2)), METADATA_TRACK,
                                                true);
    ProcessAt(30);
    EXPECT_EQ(RecorderTest::History(), before);
}

TEST_F(History, RepairAfterARebootClosesWhatWasOpenAndErasesNothing) {
    Write(VIDEO_TRACK, {1, 5});
    Write(AUDIO_TRACK, {1, 4});
    Report(VIDEO_TRACK, 1, true);
    Report(AUDIO_TRACK, 4.5, true);
    ProcessAt(7);
    Restart();
    ProcessAt(20);
    // With two of three tracks the count stays above zero, and nothing says that recording ended.
    EXPECT_THAT(RecorderTest::History(), ElementsAre("1 video on", "1 recording on", "4.5 audio on",
                                                     "4.5 audio off 7", "5 video off 7"));
    EXPECT_THAT(TimesOf(AUDIO_TRACK), ElementsAre(1, 4));
    EXPECT_THAT(TimesOf(VIDEO_TRACK), ElementsAre(1, 5));
    Write(METADATA_TRACK, {30});
    Report(METADATA_TRACK, 30, true);
    ProcessAt(40);
    Restart();
    ProcessAt(50);
    EXPECT_THAT(RecorderTest::History(),
                ElementsAre("1 video on", "1 recording on", "4.5 audio on", "4.5 audio off 7",
                            "5 video off 7", "30 metadata on", "30 video off", "30 audio off",
                            "30 metadata off 7", "30 recording off"));
    EXPECT_EQ(SizeOf(VIDEO_TRACK) + SizeOf(AUDIO_TRACK) + SizeOf(METADATA_TRACK), 5U);
    // Closed cleanly: nothing to do. Without history, but with data: the same as after a reboot.
    Restart();
    ProcessAt(60);
    EXPECT_EQ(RecorderTest::History().size(), 10U);
    TrackOf(RecordingManager::kHistoryTrack).clearTrack();
    Restart();
    ProcessAt(60);
    EXPECT_THAT(RecorderTest::History(),
                ElementsAre("4 audio off", "5 video off", "30 metadata off", "30 recording off"));
}

TEST_F(History, AvailabilityFollowsTheEvents) {
    Write(VIDEO_TRACK, {1, 2, 3, 8, 9});
    Report(VIDEO_TRACK, 1, true);
    Report(VIDEO_TRACK, 3, false);
    Report(VIDEO_TRACK, 8, true);
    Report(VIDEO_TRACK, 9, false);
    ProcessAt(20);
    const std::vector<std::pair<double, bool>> cases{{0.5, false}, {1, true}, {2.5, true}, {3, false},
                                                     {5, false},   {8, true}, {9, false},  {10, false}};
    for (const auto& [time, available] : cases) {
        EXPECT_EQ(Recorder().isDataAvailable(At(time), VIDEO_TRACK), available) << time;
        EXPECT_EQ(Recorder().isDataAvailable(At(time)), available) << time;
    }
    EXPECT_FALSE(Recorder().isDataAvailable(At(2), RecordingManager::kHistoryTrack));
    Write(VIDEO_TRACK, {21});
    // Behind the last event the history knows nothing.
    EXPECT_FALSE(Recorder().isDataAvailable(At(20), VIDEO_TRACK));
}

TEST_F(History, PagesGoForwardAndBackwardWhileOldEventsAreErased) {
    for (int i = 0; i < 3; ++i) {
        Report(VIDEO_TRACK, 10 * i, true);
        Report(VIDEO_TRACK, 10 * i + 5, false);
    }
    EXPECT_EQ(First().sec + First().usec, 0U);
    ProcessAt(100);
    const std::vector<std::string> expected{"state 5 recording off", "state 5 video off", "10 video on",
                                            "10 recording on",       "15 video off",      "15 recording off",
                                            "20 video on",           "20 recording on"};
    std::vector<std::string> reversed(expected.rbegin(), expected.rend() - 2);
    reversed.insert(reversed.begin(), expected.begin(), expected.begin() + 2);
    for (const unsigned max : {1U, 2U, 3U, 100U}) {
        EXPECT_EQ(Pages(10, 20, false, max), expected) << max;
        EXPECT_EQ(Pages(10, 20, true, max), reversed) << max;
    }
    EXPECT_EQ(First().sec, kStart);
    // One by one, from any time, while retention takes what was read.
    ServiceCursor cursor{Service(7), 0};
    std::vector<std::string> lines;
    const auto next = [&] {
        drenn::api::HistoryEvent event;
        service.getRecordingHistoryEvent(cursor, &event, &cursor);
        lines.push_back(Line(event));
    };
    const std::string none = "No history event at this time or later";
    while (ThrownText<std::out_of_range>(next) != none && lines.size() < 20) {
        if (lines.size() == 3) {
            RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(88));
        }
    }
    EXPECT_THAT(lines, ElementsAre("10 video on", "10 recording on", "15 video off", "15 recording off",
                                   "20 video on", "20 recording on", "25 video off", "25 recording off"));
    EXPECT_EQ(First().sec, kStart + 15);
    EXPECT_THROW(
        service.findHistory(Service(2), Service(1), 0, 1, cursor, nullptr, nullptr, nullptr, nullptr),
        std::invalid_argument);
}

} // namespace
