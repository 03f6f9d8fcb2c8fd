// Finding records by time, clocks that jump, erasing.

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>

#include "recording/RecorderFixture.h"

using drenn::multi_track_recorder::BlobRecord;
using quarn::calvane::RecordHeader;
using quarn::calvane::ticksFromTime;
using quarn::calvane::timeFromTicks;
using quarn::core::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const char* const kNotice = "Camera date has gone backwards.  Recorded data may be lost";

class Track : public RecorderTest {
protected:
    Track() { RecordingManager::init(); }

    static void AppendRaw(track_type type, const std::vector<std::string>& blobs) {
        BlobRecord record;
        for (const std::string& blob : blobs) {
            record.add({blob.data(), blob.size()});
        }
        *TrackOf(type).getTrack() << record;
    }
    static unsigned Strict(double time) { return TrackOf(VIDEO_TRACK).getTrackIndex(At(time)); }
    static unsigned Forced(double time) {
        return TrackOf(VIDEO_TRACK).getTrackIndexForcedIntoBounds(At(time));
    }
};

TEST_F(Track, ARecordIsAHeaderWithTicksAndThePayload) {
    const ptime noon(boost::gregorian::date(2020, 1, 1));
    EXPECT_EQ(ticksFromTime(noon), 212444640000000000);
    for (const ptime& time : {noon, ptime(), ptime(boost::posix_time::pos_infin),
                              ptime(boost::posix_time::neg_infin), At(0.000001)}) {
        EXPECT_EQ(timeFromTicks(ticksFromTime(time)), time);
    }
    Write(VIDEO_TRACK, {0}, RecordHeader::kKeyFrame | RecordHeader::kDiscontinuity);
    BlobRecord record;
    TrackOf(VIDEO_TRACK).getTrack()->seekg(0);
    *TrackOf(VIDEO_TRACK).getTrack() >> record;
    ASSERT_EQ(record.blobs().size(), 2U);
    unsigned char expected[16] = {1, 3};
    const std::int64_t ticks = 212444640000000000 + 36000000000;
    std::memcpy(expected + 8, &ticks, 8);
    ASSERT_EQ(record.blobs()[0].size(), 16U);
    EXPECT_EQ(std::memcmp(record.blobs()[0].data(), expected, 16), 0);

    const unsigned char* data = nullptr;
    unsigned size = 0;
    RecordHeader header;
    ASSERT_TRUE(RecordingManager::getPlaybackInfo(record, data, size, header));
    EXPECT_EQ(std::string(data, data + size), "data");
    EXPECT_EQ(data, record.blobs()[1].data());
    BlobRecord one;
    one.add({"x", 1});
    EXPECT_FALSE(RecordingManager::getPlaybackInfo(one, data, size, header));
    one = BlobRecord();
    one.add({"123456789012", 12});
    one.add({"x", 1});
    EXPECT_EQ(
        ThrownText<std::runtime_error>([&] { RecordingManager::getPlaybackInfo(one, data, size, header); }),
        "Parse error in recorded data");
}

TEST_F(Track, LookUpsFindTheFirstOfEqualTimes) {
    EXPECT_EQ(ThrownText<std::out_of_range>([] { Strict(1); }), "No data");
    EXPECT_EQ(ThrownText<std::out_of_range>([] { Forced(1); }), "No data");
    Write(VIDEO_TRACK, {10, 20, 20, 20, 30});
    const std::vector<std::pair<double, unsigned>> inside{{10, 0}, {15, 0}, {20, 1}, {25, 1}, {30, 4}};
    for (const auto& [time, index] : inside) {
        EXPECT_EQ(Strict(time), index) << time;
        EXPECT_EQ(Forced(time), index) << time;
    }
    EXPECT_EQ(Forced(5), 0U);
    EXPECT_EQ(Forced(35), 4U);
    EXPECT_EQ(ThrownText<std::out_of_range>([] { Strict(9.999999); }),
              "Timestamp is earlier than any recorded data");
    EXPECT_EQ(ThrownText<std::out_of_range>([] { Strict(30.000001); }),
              "Timestamp is later than any recorded data");
    TrackOf(VIDEO_TRACK).clearTrack();
    Write(VIDEO_TRACK, {30, 30});
    EXPECT_EQ(Forced(40), 1U);
    EXPECT_EQ(Forced(30), 0U);
    AppendRaw(VIDEO_TRACK, {"short", ""});
    EXPECT_EQ(ThrownText<std::runtime_error>([] { TrackOf(VIDEO_TRACK).getTimestampAtIndex(2); }),
              "Parse error in recorded data");
}

TEST_F(Track, LookUpsAgreeWithALookAtEveryRecordWhateverIsAppendedAndErased) {
    std::mt19937 random(7);
    const auto below = [&](unsigned end) { return static_cast<unsigned>(random() % end); };
    const std::string payload(60000, 'x'); // So that there are several segments.
    std::vector<ptime> asked;
    double time = 1000;
    for (int round = 0; round < 12; ++round) {
        for (int i = 0; i < 150; ++i) {
            time += below(40) == 0 ? 30 : below(8) == 0 ? 0 : 0.02 + 0.001 * below(6);
            Advance(time);
            ASSERT_TRUE(TrackOf(VIDEO_TRACK).writeRecord(At(time), 0, payload.data(), payload.size()));
        }
        if (round % 5 == 4) {
            Restart(); // What searches came across is forgotten.
        }
        RecordingTrack& video = TrackOf(VIDEO_TRACK);
        Report(VIDEO_TRACK, time + 0.001 * (round % 2),
               round % 3 == 0); // At the time of a record, or behind it.
        asked.push_back(At(time) + boost::posix_time::microseconds(500));
        ProcessAt(time += 2);
        const unsigned size = SizeOf(VIDEO_TRACK);
        if (round % 4 == 2) { // As a clock that was set back does, and goes on from there with other times.
            time = TimesOf(VIDEO_TRACK)[size - 20];
            video.getTrack()->eraseRange(size - 20, size);
        } else if (round % 4 == 3) {
            video.getTrack()->eraseRange(0, below(200));
        }
        std::vector<ptime> times;
        for (unsigned i = 0; i < SizeOf(VIDEO_TRACK); ++i) {
            times.push_back(video.getTimestampAtIndex(i));
        }
        const auto coverage = Recorder().getCoverage(VIDEO_TRACK, times.front(), times.back());
        for (int i = 0; i < 100; ++i) {
            // Half of them at a record, the others between two.
            const ptime t = times[below(static_cast<unsigned>(times.size()) - 1)] +
                            boost::posix_time::microseconds(i % 2 * 500);
            const auto behind = std::lower_bound(times.begin(), times.end(), t);
            const auto first = *behind == t ? behind : std::lower_bound(times.begin(), behind, *(behind - 1));
            EXPECT_EQ(video.getFirstIndexNotBefore(t), behind - times.begin());
            EXPECT_EQ(video.getTrackIndex(t), first - times.begin()) << t;
            asked.push_back(t);
        }
        for (const ptime& t : asked) {
            for (const auto& span : coverage) {
                if (span.start < t && t < span.end) {
                    EXPECT_EQ(Recorder().isRecordedAt(t, VIDEO_TRACK), span.reason == CoverageReason::Data)
                        << t << " in round " << round;
                }
            }
        }
    }
}

TEST_F(Track, LookUpsTakeNoMoreReadsBehindAnErasure) {
    const auto readCalls = [] {
        std::ifstream file("/proc/self/io");
        for (std::string word; file >> word;) {
            if (word == "syscr:" && file >> word) {
                return std::stol(word);
            }
        }
        throw std::runtime_error("/proc/self/io tells nothing of reads");
    };
    constexpr unsigned kRecords = 4000;
    for (unsigned i = 0; i < kRecords; ++i) {
        Write(VIDEO_TRACK, {1000.0 + i});
    }
    const auto readsOfLookUps = [&](unsigned erased) {
        const long before = readCalls();
        for (unsigned i = 200; i < kRecords - 1; i += 10) {
            EXPECT_EQ(Strict(1000.5 + i), i - erased);
        }
        return readCalls() - before;
    };
    TrackOf(VIDEO_TRACK).getTrack()->eraseRange(0, 50);
    readsOfLookUps(50); // After which there is something to remember.
    const long reads = readsOfLookUps(50);
    TrackOf(VIDEO_TRACK).getTrack()->eraseRange(0, 50);
    EXPECT_LE(readsOfLookUps(100), reads + reads / 4);
}

TEST_F(Track, AnUnsetClockIsRefusedAndOneThatGoesBackErases) {
    const ptime earliest = RecordingManager::kEarliestAllowedRecording;
    RecordingTrack& video = TrackOf(VIDEO_TRACK);
    for (const ptime& time :
         {earliest, earliest - boost::posix_time::seconds(1), ptime(), ptime(boost::posix_time::pos_infin)}) {
        EXPECT_FALSE(video.ensureIncreasingTimestamps(time));
        EXPECT_FALSE(video.writeRecord(time, 0, "x", 1));
    }
    EXPECT_EQ(SizeOf(VIDEO_TRACK), 0U);

    // Back by an hour: everything from then on goes, and the record in front of it.
    const LogCapture capture;
    Write(VIDEO_TRACK, {1, 2, 3, 3600, 3601});
    Write(AUDIO_TRACK, {1, 3});
    Write(METADATA_TRACK, {1, 2});
    EXPECT_EQ(capture.Count(kNotice), 0U);
    Write(VIDEO_TRACK, {2.5});
    EXPECT_EQ(capture.Count(kNotice), 1U);
    EXPECT_THAT(TimesOf(VIDEO_TRACK), ElementsAre(1, 2.5));
    EXPECT_THAT(TimesOf(AUDIO_TRACK), IsEmpty());
    EXPECT_THAT(TimesOf(METADATA_TRACK), ElementsAre(1));
    // The newest time stays, so that the others' next records say the same again.
    Write(AUDIO_TRACK, {2.6});
    EXPECT_EQ(capture.Count(kNotice), 2U);
    EXPECT_THAT(TimesOf(VIDEO_TRACK), ElementsAre(1));
    Write(VIDEO_TRACK, {2.7, 2.7});
    Write(AUDIO_TRACK, {2.7});
    EXPECT_EQ(capture.Count(kNotice), 2U);
    EXPECT_THAT(TimesOf(VIDEO_TRACK), ElementsAre(1, 2.7, 2.7));
}

TEST_F(Track, AClockThatComesUpBehindErasesNothingUntilItIsSynchronised) {
    Report(AUDIO_TRACK, 1000, true);
    Write(AUDIO_TRACK, {1000, 1001, 1002});
    ProcessAt(1010);
    const auto restartAt = [](double time) {
        RecordingManager::deinit();
        SetClock(time);
        RecordingManager::init();
    };
    const auto isTaken = [](double time) {
        SetClock(time);
        Recorder().processHistorySaveQueue();
        return TrackOf(AUDIO_TRACK).writeRecord(At(time), 0, "x", 1);
    };
    restartAt(-1e8);
    EXPECT_TRUE(Recorder().isAwaitingClock());
    EXPECT_FALSE(isTaken(-1e8));
    steadyMicroseconds += 299'000'000;
    EXPECT_FALSE(isTaken(-1e8 + 299));
    EXPECT_TRUE(isTaken(2000)); // Synchronised.
    EXPECT_FALSE(Recorder().isAwaitingClock());
    EXPECT_THAT(TimesOf(AUDIO_TRACK), ElementsAre(1000, 1001, 1002, 2000));
    EXPECT_THAT(History(), ElementsAre("1000 audio on", "1000 recording on", "1002 audio off 7"));
    // Set back later, it erases as ever.
    EXPECT_TRUE(isTaken(1001.5));
    EXPECT_THAT(TimesOf(AUDIO_TRACK), ElementsAre(1000, 1001.5));
    restartAt(500);
    EXPECT_FALSE(isTaken(500));
    isSynchronised = true; // That is the time, so the records are wrong.
    EXPECT_TRUE(isTaken(501));
    EXPECT_THAT(TimesOf(AUDIO_TRACK), ElementsAre(501));
    isSynchronised = false;
    restartAt(400);
    EXPECT_FALSE(isTaken(400));
    steadyMicroseconds += 300'000'000;
    EXPECT_TRUE(isTaken(401));
    EXPECT_THAT(TimesOf(AUDIO_TRACK), ElementsAre(401));
}

TEST_F(Track, ErasingFromATimeTakesTheRecordInFrontOfIt) {
    for (const auto& [from, left] : std::vector<std::pair<double, std::vector<double>>>{
             {25, {10}}, {20, {10}}, {5, {}}, {40, {10, 20}}}) {
        Recorder().clearAll();
        Write(VIDEO_TRACK, {10, 20, 30});
        Recorder().eraseDataFrom(At(from));
        EXPECT_EQ(TimesOf(VIDEO_TRACK), left) << from;
    }
}

TEST_F(Track, TheLimitOfTimeErasesWhatIsOlder) {
    Write(VIDEO_TRACK, {80, 139, 141});
    Write(AUDIO_TRACK, {141});
    Write(METADATA_TRACK, {1});
    SetClock(200);
    using Duration = boost::posix_time::time_duration;
    for (const Duration& none :
         std::initializer_list<Duration>{boost::posix_time::seconds(0), boost::posix_time::seconds(-5),
                                         boost::posix_time::time_duration(boost::posix_time::not_a_date_time),
                                         boost::posix_time::time_duration(boost::posix_time::pos_infin)}) {
        RecordingManager::setMaxRetentionTime(none);
        EXPECT_EQ(RecordingManager::getMaxRetentionTime(),
                  none.is_special() ? boost::posix_time::seconds(0) : none);
        EXPECT_EQ(SizeOf(VIDEO_TRACK), 3U);
    }
    RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(60));
    EXPECT_THAT(TimesOf(VIDEO_TRACK), ElementsAre(141));
    EXPECT_THAT(TimesOf(AUDIO_TRACK), ElementsAre(141));
    EXPECT_THAT(TimesOf(METADATA_TRACK), IsEmpty());
    // It survives a restart; one that no setting holds becomes the longest that does.
    Restart();
    EXPECT_EQ(RecordingManager::getMaxRetentionTime(), boost::posix_time::seconds(60));
    RecordingManager::setMaxRetentionTime(boost::posix_time::hours(24 * 365 * 100));
    Restart();
    EXPECT_EQ(RecordingManager::getMaxRetentionTime(), boost::posix_time::seconds(2147483647));
    EXPECT_EQ(SizeOf(VIDEO_TRACK), 1U);
}

TEST_F(Track, APeriodThatIsAskedForAgainIsTheOneOfNow) {
    ptime first;
    ptime last;
    const auto period = [&] {
        EXPECT_TRUE(TrackOf(VIDEO_TRACK).getKnownTimePeriod(first, last));
        return std::pair(SecondsOf(first), SecondsOf(last));
    };
    Write(VIDEO_TRACK, {1, 2, 3});
    EXPECT_EQ(period(), std::pair(1.0, 3.0));
    Write(VIDEO_TRACK, {4});
    EXPECT_EQ(period(), std::pair(1.0, 4.0));
    TrackOf(VIDEO_TRACK).hideBefore(At(1.5));
    EXPECT_EQ(period(), std::pair(2.0, 4.0));
    TrackOf(VIDEO_TRACK).hideBefore(ptime());
    EXPECT_EQ(period(), std::pair(1.0, 4.0));
    // As many as before, but others. Whoever asks while they are being erased sees them still.
    const boost::signals2::scoped_connection asker =
        TrackOf(VIDEO_TRACK).getTrack()->connectToEraseRangeSignal([&](unsigned, unsigned) {
            EXPECT_EQ(period(), std::pair(1.0, 4.0));
        });
    TrackOf(VIDEO_TRACK).getTrack()->eraseRange(0, 1);
    Write(VIDEO_TRACK, {5});
    EXPECT_EQ(period(), std::pair(2.0, 5.0));
}

TEST_F(Track, PeriodsAndFollowingDataSpanTheTracks) {
    ptime first;
    ptime last;
    EXPECT_FALSE(Recorder().getRecordingTimePeriod(first, last));
    Write(VIDEO_TRACK, {10, 20});
    Write(AUDIO_TRACK, {5, 12, 30});
    Recorder().writeHistoryRecord(At(1), "");
    EXPECT_TRUE(Recorder().getRecordingTimePeriod(first, last));
    EXPECT_EQ(first, At(5));
    EXPECT_EQ(last, At(30));
    EXPECT_EQ(Recorder().getEarliestDataAfter(At(10), VIDEO_TRACK), At(20));
    EXPECT_EQ(Recorder().getEarliestDataAfter(At(10)), At(12));
    EXPECT_TRUE(Recorder().getEarliestDataAfter(At(20), VIDEO_TRACK).is_not_a_date_time());
    EXPECT_TRUE(Recorder().getEarliestDataAfter(At(1)).is_not_a_date_time());
    EXPECT_THROW(Recorder().getEarliestDataAfter(At(1), RecordingManager::kHistoryTrack), std::out_of_range);
    ptime none;
    RecordingManager::updateEarliest(first, none);
    EXPECT_EQ(first, At(5));
}

TEST_F(Track, InfoHoldsForTheRecordsWrittenUnderIt) {
    RecordingTrack& video = TrackOf(VIDEO_TRACK);
    video.setInfo({{"Width", "640"}});
    Write(VIDEO_TRACK, {10, 20});
    video.setInfo({{"Width", "640"}});
    Write(VIDEO_TRACK, {30});
    video.setInfo({{"Width", "1920"}});
    Write(VIDEO_TRACK, {40});
    video.getTrack()->seekg(3);
    RecordingManager::InfoMap info;
    ptime start;
    ptime end;
    video.getTrackInfoAt(At(25), info, start, end);
    EXPECT_EQ(info.at("Width"), "640");
    EXPECT_EQ(start, At(10));
    EXPECT_EQ(end, At(30));
    video.getTrackInfoAt(At(40), info, start, end);
    EXPECT_EQ(info.at("Width"), "1920");
    EXPECT_EQ(video.getTrack()->tellg(), 3U);
    EXPECT_THROW(video.getTrackInfoAt(At(41), info, start, end), std::out_of_range);
    RecordingManager::getTrackInfo(*video.getTrack(), info);
    EXPECT_EQ(info.at("Width"), "640");
    EXPECT_EQ(ThrownText<std::invalid_argument>([&] {
                  video.setInfo({{"Width", "1\n2"}});
              }),
              "The info \"Width\" contains a line feed");
}

} // namespace
