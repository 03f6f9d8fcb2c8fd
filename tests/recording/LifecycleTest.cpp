// What init() makes of cards, devices and what it finds on them.

#include <chrono>
#include <future>
#include <iterator>
#include <thread>

#include "calvane/recording/DrennApiException.h"
#include "quarn/settings/QuarnSettingsClient.h"
#include "recording/RecorderFixture.h"
#include "support/Program.h"

using drenn::multi_track_recorder::MultiTrackRecorder;
using quarn::core::LogCapture;
using quarn::core::LogLevel;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class Lifecycle : public RecorderTest {
protected:
    void ExpectDisabled(std::int32_t reason, const std::string& text) const {
        const LogCapture capture(LogLevel::Debug);
        RecordingManager::init();
        EXPECT_EQ(RecordingManager::_recordingDisabledReason, reason);
        EXPECT_EQ(capture.Count("Error loading RecordingManager (" + text +
                                ") - Recording and playback are currently disabled."),
                  1U)
            << text;
        EXPECT_EQ(ThrownText<std::runtime_error>([] { RecordingManager::instance(); }),
                  "Recording is currently disabled");
        EXPECT_NE(RecordingManager::getInformationService(), nullptr);
        RecordingManager::deinit();
        EXPECT_EQ(RecordingManager::getInformationService(), nullptr);
    }
    boost::shared_ptr<MultiTrackRecorder> OpenStore() const {
        return MultiTrackRecorder::create(folder.Path("card/data"), folder.Path("card/database"), 98);
    }
    /// The infos of the recordings, each with the numbers of records of its tracks by format.
    std::vector<std::string> Recordings() const {
        std::vector<std::string> lines;
        const auto store = OpenStore();
        for (const auto& recording : store->getRecordings()) {
            std::string line;
            recording.lock()->getInfo(line);
            line += ":";
            for (const auto& track : recording.lock()->getTracks()) {
                line +=
                    " " + track.lock()->getFormat().getName() + "=" + std::to_string(track.lock()->size());
            }
            lines.push_back(line);
        }
        return lines;
    }
};

TEST_F(Lifecycle, ACardThatCannotBeUsedDisablesRecordingAndSaysWhy) {
    const std::string foreign = "Unexpected data in local-recording storage location";
    folder.Write("card/photo.jpg", "");
    ExpectDisabled(5, foreign);
    std::filesystem::remove(folder.Path("card/photo.jpg"));
    folder.Write("card/lost+found", "a file, not what fsck makes");
    ExpectDisabled(5, foreign);
    std::filesystem::remove_all(folder.Path("card"));
    ExpectDisabled(4, "No SD Card!");
    folder.Write("card", "");
    ExpectDisabled(4, "No SD Card!");

    std::filesystem::remove(folder.Path("card"));
    std::filesystem::create_directories(folder.Path("card/lost+found"));
    folder.Write("card/data", "not a folder");
    const LogCapture capture;
    RecordingManager::init();
    EXPECT_EQ(RecordingManager::_recordingDisabledReason, 6);
    EXPECT_THROW(RecordingManager::instance(), std::runtime_error);
    std::filesystem::remove(folder.Path("card/data"));
    Restart();
    EXPECT_EQ(RecordingManager::_recordingDisabledReason, 0);
    EXPECT_TRUE(folder.Has("card/data") && folder.Has("card/database"));
}

TEST_F(Lifecycle, StartingStoppingAndTheRootPathHaveTheirOrder) {
    EXPECT_THROW(RecordingManager::setRecordingRootPath(""), std::invalid_argument);
    RecordingManager::deinit();
    RecordingManager::init();
    EXPECT_EQ(RecordingManager::getRecordingRootPath(), folder.Path("card") + "/");
    EXPECT_THROW(RecordingManager::init(), std::logic_error);
    EXPECT_THROW(RecordingManager::setRecordingRootPath("/x"), std::logic_error);
    EXPECT_NO_THROW(Recorder());
    // While recording is disabled, the limit is stored all the same.
    RecordingManager::deinit();
    RecordingManager::setMaxRetentionTime(boost::posix_time::milliseconds(90250));
    std::filesystem::remove_all(folder.Path("card"));
    RecordingManager::init();
    EXPECT_EQ(RecordingManager::getMaxRetentionTime(), boost::posix_time::milliseconds(90250));
}

TEST_F(Lifecycle, ALimitThatOthersSetCountsWhenItWasReadWhole) {
    RecordingManager::init();
    RecordingManager::setMaxRetentionTime(boost::posix_time::milliseconds(90250));
    Write(VIDEO_TRACK, {1, 2});
    const auto take = &RecordingManager::takeMaxRetentionTimeSetting;
    EXPECT_FALSE(take() || take());
    quarn::settings::QuarnSettingsClient other(nullptr);
    other.Set(quarn::calvane::kMaxRetentionTimeSeconds, 0); // And the microseconds a moment later.
    EXPECT_FALSE(take());
    other.Set(quarn::calvane::kMaxRetentionTimeMicroseconds, 0);
    EXPECT_FALSE(take());
    EXPECT_TRUE(take());
    EXPECT_EQ(RecordingManager::getMaxRetentionTime(), boost::posix_time::seconds(0));
    EXPECT_EQ(SizeOf(VIDEO_TRACK), 2U);
    other.Set({{quarn::calvane::kMaxRetentionTimeSeconds, 1}});
    SetClock(2.5);
    EXPECT_FALSE(take());
    EXPECT_TRUE(take());
    EXPECT_EQ(SizeOf(VIDEO_TRACK), 1U);
    // Nonsense does not keep the recorder from starting.
    other.Set(quarn::calvane::kMaxRetentionTimeSeconds, std::string("soon"));
    Restart();
    EXPECT_EQ(RecordingManager::_recordingDisabledReason, 0);
    EXPECT_EQ(RecordingManager::getMaxRetentionTime(), boost::posix_time::seconds(0));
}

TEST_F(Lifecycle, ItTellsWhetherATrackCouldTakeARecord) {
    RecordingManager::init();
    std::future<void> waiting;
    {
        const std::lock_guard<const drenn::multi_track_recorder::Track> stuck(
            *TrackOf(AUDIO_TRACK).getTrack());
        waiting = std::async(std::launch::async, [] { Recorder().awaitWriters(); });
        EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    }
    waiting.get();
}

TEST_F(Lifecycle, AFailingCallOfThePlatformIsThrownAsWritten) {
    SetDevice("model.name = \"unclosed\n[device\n");
    EXPECT_EQ(ThrownText<quarn::calvane::DrennApiException>([] { RecordingManager::getDeviceInfoString(); }),
              "Failed drenn api call: drenn_api_device_information_get_all_send(cookie, "
              "\"device_information\", &modelName, &modelNumber, &firwareVersion, &hardwareVersion, "
              "&serialNumber, &hardwareID, &hardwareFamily, &friendlyName, &opSys, &architecture)");
    SetDevice("model.name = M\nserial.number = 1\n");
    EXPECT_EQ(RecordingManager::getDeviceInfoString(), "M,1");
}

TEST_F(Lifecycle, EachDeviceHasItsRecordingOnACardThatIsMoved) {
    RecordingManager::init();
    Write(VIDEO_TRACK, {1, 2});
    RecordingManager::deinit();
    SetDevice("model.name = M\nserial.number = 2\n");
    RecordingManager::init();
    EXPECT_EQ(SizeOf(VIDEO_TRACK), 0U);
    Write(AUDIO_TRACK, {1, 2, 3});
    RecordingManager::deinit();
    EXPECT_THAT(Recordings(), ElementsAre("M,1: 1=0 0=2 2=0 -1=0", "M,2: 1=3 0=0 2=0 -1=0"));

    // Empty tracks are made anew, the other device's are left alone.
    const LogCapture capture(LogLevel::Debug);
    RecordingManager::init();
    EXPECT_EQ(SizeOf(AUDIO_TRACK), 3U);
    EXPECT_TRUE(capture.Contains("Found 2 existing recordings - looking for one with device info \"M,2\""));
    EXPECT_TRUE(capture.Contains("USING EXISTING RECORDING"));
    EXPECT_TRUE(capture.Contains("Found track of expected type (1)"));
    EXPECT_TRUE(capture.Contains("Checking for existing track of type 1 in 1 tracks"));
    EXPECT_EQ(capture.Count("creating new track"), 3U);
    RecordingManager::deinit();
    EXPECT_THAT(Recordings(), ElementsAre("M,1: 1=0 0=2 2=0 -1=0", "M,2: 1=3 0=0 2=0 -1=0"));
}

TEST_F(Lifecycle, ATrackOfAnotherVersionStopsStarting) {
    RecordingManager::init();
    Write(VIDEO_TRACK, {1});
    RecordingManager::deinit();
    {
        const auto store = OpenStore();
        for (const auto& track : store->getRecordings().front().lock()->getTracks()) {
            if (track.lock()->size() > 0) {
                track.lock()->setFormat({"0", 2});
            }
        }
    }
    ExpectDisabled(6, "Invalid recording data version: (0, 2)");
}

TEST_F(Lifecycle, AnUnreadableLastHistoryRecordNamesTheCommandThatPutsItRight) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"EventType\n", "Format error in recorded data: 1 elements found"},
        {"TrackType\n0\n", "map::at"},
        {"EventType\n0\n", "map::at"},
        {"EventType\nx\n", "bad lexical cast: source type value could not be interpreted as target"}};
    RecordingManager::init();
    Report(VIDEO_TRACK, 50, true);
    ProcessAt(100);
    for (const auto& [text, error] : cases) {
        Recorder().writeHistoryRecord(At(100), text);
        const LogCapture capture(LogLevel::Debug);
        Restart();
        EXPECT_EQ(RecordingManager::_recordingDisabledReason, 6) << text;
        EXPECT_TRUE(capture.Contains("Error loading RecordingManager (" + error +
                                     ") - Recording and playback are currently disabled."))
            << text;
        std::string command;
        for (const LogCapture::Line& line : capture.GetLines()) {
            if (const auto place = line.text.find("calvane-store "); place != std::string::npos) {
                command = line.text.substr(place, line.text.find('"', place) - place);
            }
        }
        std::istringstream words(command);
        const std::vector<std::string> all{std::istream_iterator<std::string>(words), {}};
        ASSERT_EQ(all.size(), 5U) << command;
        Program program(all[0], {all.begin() + 1, all.end()}, folder.Path());
        EXPECT_EQ(program.Wait(), 0) << program.Err();
        Restart();
        EXPECT_EQ(RecordingManager::_recordingDisabledReason, 0) << text;
        EXPECT_THAT(History(), ElementsAre("50 video on", "50 recording on"));
    }
}

void AwaitLine(const LogCapture& capture, const std::string& line) {
    for (int i = 0; i < 300 && !capture.Contains(line); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_TRUE(capture.Contains(line)) << line;
}

// Other records are then in the places that searches remember.
TEST_F(Lifecycle, LookUpsBelieveNothingOfRecordsThatWereLostWithTheCard) {
    RecordingManager::init();
    Write(VIDEO_TRACK, {1, 2, 3, 4, 5});
    RecordingManager::deinit();
    std::filesystem::copy(folder.Path("card"), folder.Path("earlier"),
                          std::filesystem::copy_options::recursive);
    RecordingManager::init();
    Write(VIDEO_TRACK, {6, 7, 8, 9, 10});
    Restart(); // So that nothing is in memory.
    for (unsigned i = 0; i < 9; ++i) {
        EXPECT_EQ(TrackOf(VIDEO_TRACK).getTrackIndex(At(i + 1.5)), i);
    }
    const LogCapture capture(LogLevel::Debug);
    std::filesystem::rename(folder.Path("card/data"), folder.Path("away"));
    AwaitLine(capture, "The card is away; nothing is recorded until it is back");
    std::filesystem::remove_all(folder.Path("card/database"));
    std::filesystem::rename(folder.Path("earlier/database"), folder.Path("card/database"));
    std::filesystem::rename(folder.Path("earlier/data"), folder.Path("card/data"));
    AwaitLine(capture, "The card is back; recording goes on");
    Write(VIDEO_TRACK, {50, 60, 70, 80, 90});
    ASSERT_THAT(TimesOf(VIDEO_TRACK), ElementsAre(1, 2, 3, 4, 5, 50, 60, 70, 80, 90));
    const auto around = TrackOf(VIDEO_TRACK).findAround(At(7.5));
    ASSERT_TRUE(around);
    EXPECT_EQ(around->behind, At(50));
    EXPECT_EQ(TrackOf(VIDEO_TRACK).getTrackIndex(At(7.5)), 4U);
    EXPECT_EQ(TrackOf(VIDEO_TRACK).getTrackIndex(At(55)), 5U);
}

TEST_F(Lifecycle, AfterTheCardWasAwayTheHistoryTellsSo) {
    RecordingManager::init();
    Write(VIDEO_TRACK, {1, 2});
    Report(VIDEO_TRACK, 1, true);
    Report(AUDIO_TRACK, 1, true);
    Report(METADATA_TRACK, 9.5, true); // Waits when the card goes.
    ProcessAt(10);
    Recorder().getCoverage(VIDEO_TRACK, At(1), At(2));
    const LogCapture capture(LogLevel::Debug);
    std::filesystem::rename(folder.Path("card/data"), folder.Path("away"));
    AwaitLine(capture, "The card is away; nothing is recorded until it is back");
    EXPECT_THROW(TrackOf(VIDEO_TRACK).writeRecord(At(11), 0, "x", 1), std::runtime_error);
    // A clock that is set back meanwhile erases nothing: what cannot be read now comes back with the card.
    EXPECT_THROW(TrackOf(VIDEO_TRACK).writeRecord(At(3), 0, "x", 1), std::runtime_error);
    TrackOf(VIDEO_TRACK).setLatestToNewestRecord(); // None can be read.
    EXPECT_EQ(TrackOf(VIDEO_TRACK).getLatestTimestamp(), At(11));
    EXPECT_EQ(ThrownText<std::runtime_error>([] { Recorder().getCoverage(VIDEO_TRACK, At(0), At(1)); }),
              "The card with the recording is away");
    Report(AUDIO_TRACK, 12, false);
    ProcessAt(20);
    EXPECT_THAT(capture.GetLines(), Contains(testing::Field(&LogCapture::Line::text,
                                                            HasSubstr("Failed to record history record: "))));
    std::filesystem::rename(folder.Path("away"), folder.Path("card/data"));
    while (ThrownText<std::runtime_error>([] { Recorder().getCoverage(VIDEO_TRACK, At(0), At(1)); }) ==
           "The card with the recording is away") {
        std::this_thread::yield();
    }
    // The store has the card, and the history may still have to be repaired: nothing gets in front of that.
    Report(AUDIO_TRACK, 18.4, true);
    ProcessAt(20);
    AwaitLine(capture, "The card is back; recording goes on");
    ProcessAt(30);
    EXPECT_THAT(History(),
                ElementsAre("1 video on", "1 recording on", "1 audio on", "9.5 metadata on", "10 video off 2",
                            "10 audio off 2", "10 metadata off 2", "10 recording off", "18.4 audio on",
                            "18.4 recording on", "20 video on", "20 metadata on"));
    Write(VIDEO_TRACK, {30});
    EXPECT_THAT(Coverage(VIDEO_TRACK, 1, 30), ElementsAre("1..10 data", "10..20 no card", "20..30 data"));
}

} // namespace
