// Everything at once, and ending in the midst of it.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <thread>

#include "RecordReader.h"
#include "recording/RecorderFixture.h"

namespace {

class Concurrency : public RecorderTest {
protected:
    Concurrency() { RecordingManager::init(); }
    ~Concurrency() override { End(); }

    /// Repeats `action` on a thread of its own.
    void Repeat(const std::function<void()>& action) {
        threads_.emplace_back([this, action] {
            while (!end_) {
                action();
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    }
    void End() {
        end_ = true;
        for (std::thread& thread : threads_) {
            thread.join();
        }
        threads_.clear();
    }
    /// A clock that goes on by a millisecond whenever it is asked.
    static double Next() {
        double time = seconds;
        while (!seconds.compare_exchange_weak(time, time + 0.001)) {
        }
        return time + 0.001;
    }

    std::atomic<bool> end_{false};
    std::vector<std::thread> threads_;
};

TEST_F(Concurrency, WritersReadersRetentionErasingAndClockJumpsDoNotDisturbEachOther) {
    SetClock(1000);
    RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(5));
    std::atomic<unsigned> written{0};
    for (const track_type type : {VIDEO_TRACK, AUDIO_TRACK, METADATA_TRACK}) {
        Repeat([type, &written] {
            const double time = Next();
            written += TrackOf(type).writeRecord(At(time), 0, &time, sizeof(time)) ? 1 : 0;
            if (written % 16 == 0) {
                TrackOf(type).setInfo({{"Width", std::to_string(written)}});
                Report(type, time, (written / 16) % 2 == 0);
            }
        });
    }
    Repeat([] {
        if (std::rand() % 50 == 0) {
            SetClock(seconds - 0.05); // Goes back.
        }
        Recorder().processHistorySaveQueue();
    });
    Repeat([] {
        // As the ring does: the oldest of each track, one after the other, on a thread of its own.
        for (const track_type type : {VIDEO_TRACK, AUDIO_TRACK}) {
            const auto track = TrackOf(type).getTrack();
            if (track->size() > 200) {
                track->eraseRange(0, 20);
            }
        }
        Recorder().enforceMaxRetentionTime();
    });
    const std::shared_ptr<quarn::calvane::RecordingInformationImpl> service =
        RecordingManager::getInformationService();
    std::atomic<unsigned> answered{0};
    Repeat([&] {
        unsigned out[4] = {};
        unsigned char state[4] = {};
        service->getRecordingSummary(&out[0], &out[1], &out[2], &out[3]);
        service->getRecordingState(out[2], out[3], &state[0], &state[1], &state[2], &state[3]);
        answered += out[0] != 0 && state[0] != 0 ? 1 : 0;
    });
    Repeat([] {
        const double time = seconds;
        Recorder().isDataAvailable(At(time - 1));
        Recorder().getCoverage(VIDEO_TRACK, At(time - 10), At(time));
        Recorder().findHistory(At(0), At(1e6), true, 100, {At(1e6), 0});
        Recorder().getEarliestDataAfter(At(time - 1));
    });
    quarn::calvane::RecordingDataAccessImpl access(RecordingManager::getLogCookie());
    std::atomic<unsigned> streamed{0};
    Repeat([&] {
        const double time = seconds;
        int fd = -1;
        access.openRecords(0, Service(std::max(0.0, time - 5)), Service(time), &fd);
        calvane_recording::RecordReader reader(fd);
        for (calvane_recording::Time last = 0; streamed % 100 != 99;) { // Some are left in their midst.
            const auto frame = reader.Read();
            EXPECT_NE(frame.kind, calvane_recording::Frame::kFailed);
            if (frame.kind == calvane_recording::Frame::kEnd || HasFailure()) {
                break;
            }
            EXPECT_LE(last, frame.time);
            last = frame.time;
            ++streamed;
        }
        ++streamed;
    });
    EXPECT_TRUE(WaitUntil([&] { return streamed > 500 && written > 3000 && answered > 20; }))
        << written << ", " << answered << ", " << streamed;
    End();
    for (const track_type type :
         {VIDEO_TRACK, AUDIO_TRACK, METADATA_TRACK, RecordingManager::kHistoryTrack}) {
        const std::vector<double> times = TimesOf(type);
        EXPECT_TRUE(std::is_sorted(times.begin(), times.end())) << type;
    }
}

TEST_F(Concurrency, CoverageHasEachRecordThatIsNotErasedMeanwhile) {
    constexpr int kSpans = 300;
    for (int i = 0; i < kSpans; ++i) {
        Write(VIDEO_TRACK, {1000.0 + 20 * i, 1001.0 + 20 * i}); // Too far apart to belong together.
    }
    const auto asked = [] {
        const auto spans = Recorder().getCoverage(VIDEO_TRACK, At(0), At(1001 + 20 * kSpans));
        return std::count_if(spans.begin(), spans.end(),
                             [](const auto& span) { return span.reason == CoverageReason::Data; });
    };
    ASSERT_EQ(asked(), kSpans);
    std::atomic<unsigned> answers{0};
    threads_.emplace_back([&] {
        while (!end_) {
            const auto before = static_cast<long>(SizeOf(VIDEO_TRACK) / 2);
            const auto spans = static_cast<long>(asked());
            EXPECT_LE(spans, before);
            EXPECT_GE(spans, static_cast<long>(SizeOf(VIDEO_TRACK) / 2));
            ++answers;
        }
    });
    while (SizeOf(VIDEO_TRACK) > 0 && (answers < 20 || SizeOf(VIDEO_TRACK) > kSpans)) {
        TrackOf(VIDEO_TRACK).getTrack()->eraseRange(0, 2);
    }
    EXPECT_TRUE(WaitUntil([&] { return answers > 0; }));
    End(); // Before what the thread uses is gone.
}

TEST_F(Concurrency, ErasingWhileTheRecorderEndsDoesNotCrash) {
    for (int round = 0; round < 10; ++round) {
        Recorder().clearAll();
        for (int i = 0; i < 50; ++i) {
            Write(VIDEO_TRACK, {1000.0 + round * 50 + i});
        }
        const auto track = TrackOf(VIDEO_TRACK).getTrack();
        std::atomic<bool> begun{false};
        std::thread eraser([&] {
            try {
                for (;;) {
                    track->eraseRange(0, 1);
                    begun = true;
                }
            } catch (const std::exception&) { // The store has gone.
            }
        });
        EXPECT_TRUE(WaitUntil([&] { return begun.load(); }));
        RecordingManager::deinit();
        eraser.join();
        RecordingManager::init();
    }
}

} // namespace
