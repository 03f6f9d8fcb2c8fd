// What a damaged card leaves readable.

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "recording/RecorderFixture.h"

using quarn::core::LogCapture;
using quarn::core::LogLevel;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class Damage : public RecorderTest {
protected:
    Damage() { RecordingManager::init(); }

    /// Flips a bit in all copies of a record's header.
    void DamageRecordsOf(std::initializer_list<double> times) const {
        for (const auto& file : std::filesystem::directory_iterator(folder.Path("card/data"))) {
            std::ifstream in(file.path(), std::ios::binary);
            std::string bytes{std::istreambuf_iterator<char>(in), {}};
            for (const double time : times) {
                const std::int64_t ticks = quarn::calvane::ticksFromTime(At(time));
                const std::string wanted(reinterpret_cast<const char*>(&ticks), sizeof ticks);
                for (auto place = bytes.find(wanted); place != std::string::npos;
                     place = bytes.find(wanted)) {
                    bytes[place] = static_cast<char>(bytes[place] ^ 1);
                }
            }
            std::ofstream(file.path(), std::ios::binary) << bytes;
        }
    }
    void RestartDamaged(std::initializer_list<double> times) const {
        RecordingManager::deinit();
        DamageRecordsOf(times);
        RecordingManager::init();
        ASSERT_EQ(RecordingManager::_recordingDisabledReason, 0);
    }
};

TEST_F(Damage, QueriesAndRetentionPassOverRecordsThatCannotBeRead) {
    Write(VIDEO_TRACK, {1, 2, 3, 4.5, 4.5, 5, 16, 17, 18, 29});
    const LogCapture capture(LogLevel::Warning);
    // The oldest, what both sides of a gap end with, the newest.
    RestartDamaged({1, 5, 16, 29});
    ptime first;
    ptime last;
    ASSERT_TRUE(Recorder().getRecordingTimePeriod(first, last));
    EXPECT_EQ(first, At(2));
    EXPECT_EQ(last, At(18));
    const RecordingTrack& video = TrackOf(VIDEO_TRACK);
    EXPECT_EQ(video.getTrackIndex(At(10)), 3U);
    EXPECT_EQ(video.getTrackIndex(At(17.5)), 7U);
    EXPECT_EQ(video.getTrackIndexForcedIntoBounds(At(0)), 1U);
    EXPECT_EQ(video.getTrackIndexForcedIntoBounds(At(99)), 8U);
    EXPECT_EQ(video.getFirstIndexNotBefore(At(10)), 5U);
    EXPECT_EQ(video.getFirstIndexNotBefore(ptime()), 10U);
    EXPECT_EQ(Recorder().getEarliestDataAfter(At(4.6), VIDEO_TRACK), At(4.5));
    RecordingManager::InfoMap info;
    EXPECT_NO_THROW(TrackOf(VIDEO_TRACK).getTrackInfoAt(At(3), info, first, last));
    EXPECT_EQ(last, At(18));
    EXPECT_THAT(capture.GetLines(), testing::Contains(testing::Field(
                                        &LogCapture::Line::text, HasSubstr("cannot be read and is passed"))));
    EXPECT_LE(capture.GetLines().size(), 3U); // However often they are met.
    SetClock(31);
    RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(28));
    EXPECT_THAT(SizeOf(VIDEO_TRACK), 7U);
    Write(VIDEO_TRACK, {32});
    Recorder().eraseDataFrom(At(17));
    EXPECT_EQ(SizeOf(VIDEO_TRACK), 4U);
}

TEST_F(Damage, WhatTheStoreKnowsTellsNothingOnceRecordsCannotBeRead) {
    // One for each second, but 40, 49, 58, 67.
    WriteSeveralSegments([](int number) { return 1 + number + 8 * std::clamp(number - 39, 0, 3); });
    const LogCapture capture(LogLevel::Off);
    RestartDamaged({49, 58});
    // Nobody has tried to read it.
    EXPECT_THAT(Coverage(VIDEO_TRACK, 55, 55), ElementsAre("55..55 data"));
    EXPECT_THAT(Coverage(VIDEO_TRACK, 30, 80), ElementsAre("30..40 data", "40..67 unknown", "67..80 data"));
    EXPECT_THAT(Coverage(VIDEO_TRACK, 55, 55), ElementsAre("55..55 unknown"));
    EXPECT_THAT(Coverage(VIDEO_TRACK, 70, 70), ElementsAre("70..70 data"));
}

TEST_F(Damage, StartingNeedsOnlyTheNewestEventThatCanBeRead) {
    for (const double time : {1, 2, 3}) {
        Report(AUDIO_TRACK, time, true);
        Report(AUDIO_TRACK, time + 0.5, false);
        Write(AUDIO_TRACK, {time});
    }
    Report(METADATA_TRACK, 4, true);
    ProcessAt(10);
    RestartDamaged({4});
    ProcessAt(12);
    EXPECT_EQ(History().back(), "3.5 recording off"); // Closed, as far as can be read.
    RestartDamaged({1, 3.5});
    EXPECT_THAT(History(), ElementsAre("1.5 audio off", "1.5 recording off", "2 audio on", "2 recording on",
                                       "2.5 audio off", "2.5 recording off", "3 audio on", "3 recording on"));
    ProcessAt(20);
    EXPECT_EQ(History().back(), "3 audio off 7"); // By the last of its records.
    RestartDamaged({1.5, 2, 2.5, 3});
    EXPECT_THAT(History(), testing::IsEmpty());
    EXPECT_FALSE(Recorder().isDataAvailable(At(2), AUDIO_TRACK));
}

} // namespace
