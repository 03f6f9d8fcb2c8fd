#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "calvane/recording/RecordingClock.h"
#include "calvane/recording/RecordingManager.h"
#include "calvane/services/RecordingDataAccessImpl.h"
#include "calvane/services/RecordingInformationImpl.h"
#include "drenn/multi_track_recorder/MultiTrackRecorder.h"
#include "quarn/core/LogCapture.h"
#include "support/PrivateBus.h"
#include "support/TempFolder.h"
#include "support/ThrownText.h"
#include "support/WaitUntil.h"

using quarn::calvane::AUDIO_TRACK;
using quarn::calvane::CoverageReason;
using quarn::calvane::METADATA_TRACK;
using quarn::calvane::RecordingClock;
using quarn::calvane::RecordingManager;
using quarn::calvane::RecordingTrack;
using quarn::calvane::track_type;
using quarn::calvane::VIDEO_TRACK;

using boost::posix_time::ptime;

/// The process's recorder, on a card of the test's own. Times are seconds after 2020-01-01 10:00:00 UTC, and the
/// clock stands still unless a test sets it.
class RecorderTest : public testing::Test {
protected:
    RecorderTest() {
        static const TempFolder settings; // Opened once by the process.
        setenv("DRENN_SETTINGS", settings.Path("settings.db").c_str(), 1);
        setenv("DRENN_DEVICE_INFORMATION", folder.Path("device.ini").c_str(), 1);
        SetDevice("model.name = M\nserial.number = 1\n");
        std::filesystem::create_directory(folder.Path("card"));
        static const RecordingClock::Source source{[] { return At(seconds); },
                                                   [] { return steadyMicroseconds.load(); },
                                                   [] { return isSynchronised.load(); }};
        RecordingClock::setSource(&source);
        SetClock(0);
        isSynchronised = false;
        RecordingManager::setRecordingRootPath(folder.Path("card"));
    }
    ~RecorderTest() override {
        RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(0));
        RecordingManager::setMaxSpace({});
        RecordingManager::deinit();
        RecordingClock::setSource(nullptr);
    }

    static ptime At(double time) {
        return ptime(boost::gregorian::date(2020, 1, 1), boost::posix_time::hours(10)) +
               boost::posix_time::microseconds(static_cast<std::int64_t>(time * 1e6));
    }
    /// As time goes on; a clock that goes back was set back.
    static void Advance(double time) {
        steadyMicroseconds += 1 + static_cast<std::int64_t>(std::max(0.0, time - seconds) * 1e6);
        seconds = time;
    }
    /// As somebody sets the clock.
    static void SetClock(double time) { seconds = time; }
    void SetDevice(const std::string& keys) const { folder.Write("device.ini", "[device]\n" + keys); }

    static RecordingManager& Recorder() { return *RecordingManager::instance(); }
    static RecordingTrack& TrackOf(track_type type) { return Recorder().getTrack(type); }
    static unsigned SizeOf(track_type type) { return TrackOf(type).getTrack()->size(); }
    static void Restart() {
        RecordingManager::deinit();
        RecordingManager::init();
    }
    /// Writes records, and advances the clocks with them.
    static void Write(track_type type, std::initializer_list<double> times, unsigned flags = 0) {
        for (const double time : times) {
            Advance(time);
            ASSERT_TRUE(TrackOf(type).writeRecord(At(time), flags, "data", 4));
        }
    }
    /// Video, 250 records at these times by number. Each restart begins a segment, and the store knows the first record
    /// of each without reading it.
    static void WriteSeveralSegments(const std::function<double(int)>& timeOf) {
        for (int i = 0; i < 250; ++i) {
            Write(VIDEO_TRACK, {timeOf(i)});
            if (i == 80 || i == 160 || i == 249) {
                Restart();
            }
        }
    }
    static void Report(track_type type, double time, bool present,
                       CoverageReason reason = CoverageReason::Stopped) {
        TrackOf(type).notifyRecordingDataPresentChange(At(time), present, reason);
    }
    static void ProcessAt(double time) {
        Advance(time);
        Recorder().processHistorySaveQueue();
    }
    static std::vector<double> TimesOf(track_type type) {
        std::vector<double> times;
        for (unsigned i = 0; i < SizeOf(type); ++i) {
            times.push_back(SecondsOf(TrackOf(type).getTimestampAtIndex(i)));
        }
        return times;
    }
    static double SecondsOf(const ptime& time) {
        return static_cast<double>((time - At(0)).total_microseconds()) / 1e6;
    }
    static std::string Number(double value) {
        std::ostringstream text;
        text << value;
        return text.str();
    }
    static std::string Describe(const quarn::calvane::HistoryEvent& event) {
        static const std::vector<std::string> names{"video", "audio", "metadata"};
        return Number(SecondsOf(event.time)) + " " + (event.isOfTrack ? names.at(event.track) : "recording") +
               (event.present ? " on" : " off") +
               (event.reason == CoverageReason::Stopped || event.present
                    ? ""
                    : " " + std::to_string(static_cast<int>(event.reason)));
    }
    static std::vector<std::string> History() {
        std::vector<std::string> lines;
        const auto page = Recorder().findHistory(At(-1e6), At(1e6), false, 1000, {At(-1e6), 0});
        for (const auto& event : page.events) {
            lines.push_back(Describe(event));
        }
        return lines;
    }
    /// In pages of `max` spans, put together; 0 is all at once.
    static std::vector<std::string> Coverage(track_type type, double from, double to, unsigned max = 0) {
        std::vector<quarn::calvane::CoverageSpan> spans;
        if (max == 0) {
            spans = Recorder().getCoverage(type, At(from), At(to));
        }
        quarn::calvane::CoveragePage page;
        for (page.next = At(from), page.more = max != 0; page.more && spans.size() < 100;) {
            page = Recorder().findCoverage(type, page.next, At(to), max);
            EXPECT_LE(page.spans.size(), max);
            const bool goesOn = !spans.empty() && spans.back().reason == page.spans.front().reason;
            if (goesOn) {
                spans.back().end = page.spans.front().end;
            }
            spans.insert(spans.end(), page.spans.begin() + (goesOn ? 1 : 0), page.spans.end());
        }
        std::vector<std::string> lines;
        for (const auto& span : spans) {
            lines.push_back(
                Number(SecondsOf(span.start)) + ".." + Number(SecondsOf(span.end)) + " " +
                quarn::calvane::kCoverageReasonNames.at(static_cast<std::size_t>(span.reason)).text);
        }
        return lines;
    }

    /// As clients write it.
    static drenn::api::ServiceTime Service(double time) {
        const auto microseconds = static_cast<std::int64_t>(kStart) * 1000000 + std::llround(time * 1e6);
        return {static_cast<unsigned>(microseconds / 1000000), static_cast<unsigned>(microseconds % 1000000)};
    }

    static constexpr unsigned kStart = 1577872800; // 2020-01-01 10:00:00 UTC, for clients.
    const TempFolder folder;
    const PrivateBus bus;
    static inline std::atomic<double> seconds{0};
    static inline std::atomic<std::int64_t> steadyMicroseconds{1};
    static inline std::atomic<bool> isSynchronised{false};
};
