// Recording in real time: what it takes, and how long a writer waits.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <thread>

#include "Input.h"
#include "Measurements.h"
#include "calvane/recording/RecordingClock.h"
#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

namespace {

using drenn::multi_track_recorder::BlobRecord;
using drenn::multi_track_recorder::MultiTrackRecorder;
using quarn::calvane::RecordingClock;
using quarn::calvane::RecordingManager;
using quarn::calvane::track_type;

constexpr std::uint32_t kSlots = 50; ///< Of a second.

double ProcessorTime() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// That this thread could have run in and waited for a processor.
double TimeWithoutProcessor() {
    std::ifstream statistics("/proc/thread-self/schedstat");
    std::uint64_t ran = 0;
    std::uint64_t waited = 0;
    statistics >> ran >> waited;
    return static_cast<double>(waited) / 1e9;
}

track_type TypeOf(const InputRecord& record) {
    return record.track == Input::kHistory ? RecordingManager::kHistoryTrack
                                           : static_cast<track_type>(record.track);
}

/// Calls `write` for each record when it is due.
template <typename Write>
void Replay(const Input& input, std::uint32_t seconds, Write write) {
    const auto begin = Clock::now();
    for (std::uint32_t slot = 0; slot < seconds * kSlots; ++slot) {
        std::this_thread::sleep_until(begin + slot * std::chrono::microseconds(1000000 / kSlots));
        const std::uint32_t second = slot / kSlots;
        for (unsigned track = 0; track < Input::kTracks; ++track) {
            if (slot % kSlots < Input::kPerSecond[track]) {
                write(input.Get(track, second * Input::kPerSecond[track] + slot % kSlots));
            }
        }
    }
}

/// What a record of the history has to be, and as long as it says.
std::string HistoryText(std::size_t bytes) {
    std::string text = "EventType\n1\nTrackDataPresent\n1\nTrackType\n0\nNote\n";
    text.resize(bytes - 1, '.');
    return text + '\n';
}

void WriteToTrack(const InputRecord& record) {
    const bool isHistory = record.track == Input::kHistory;
    const std::string text = isHistory ? HistoryText(record.bodyBytes) : std::string();
    const void* const body = isHistory ? static_cast<const void*>(text.data()) : record.body;
    const unsigned int flags = isHistory ? RecordingManager::RecordHeader::kHistory : 0;
    // The header's 16 bytes are the track's own.
    auto& track = Recorder::Manager().getTrack(TypeOf(record));
    if (!track.writeRecord(RecordingClock::now(), flags, body, record.bodyBytes)) {
        throw std::runtime_error("a record was not written, since the clock has not been set");
    }
}

void WriteToFile(int file, const void* bytes, std::size_t size) {
    if (write(file, bytes, size) != static_cast<ssize_t>(size)) {
        throw std::runtime_error(std::string("Cannot write the raw file: ") + std::strerror(errno));
    }
}

} // namespace

void MeasureRecording(const std::string& card, std::uint32_t seconds) {
    const Recorder recorder(card);
    const Input input;
    std::uint64_t payload = 0;
    const double processor = ProcessorTime();
    const auto begin = Clock::now();
    Replay(input, seconds, [&](const InputRecord& record) {
        WriteToTrack(record);
        payload += record.Bytes();
    });
    std::printf("{\"share\": %f, \"payload\": %llu}\n", (ProcessorTime() - processor) / SecondsSince(begin),
                static_cast<unsigned long long>(payload));
}

void MeasureRawFile(const std::string& file, std::uint32_t seconds) {
    const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        throw std::runtime_error("Cannot make " + file + ": " + std::strerror(errno));
    }
    const Input input;
    const double processor = ProcessorTime();
    const auto begin = Clock::now();
    std::uint32_t count = 0;
    Replay(input, seconds, [&](const InputRecord& record) {
        WriteToFile(descriptor, record.header, InputRecord::kHeaderBytes);
        WriteToFile(descriptor, record.body, record.bodyBytes);
        // A second has 111 records.
        if (++count % 111 == 0 && fdatasync(descriptor) != 0) {
            throw std::runtime_error("Cannot sync " + file + ": " + std::strerror(errno));
        }
    });
    const double share = (ProcessorTime() - processor) / SecondsSince(begin);
    close(descriptor);
    std::printf("{\"share\": %f}\n", share);
}

void MeasureRetention(const std::string& card, std::uint32_t seconds, std::uint32_t limit) {
    const Recorder recorder(card);
    const Input input;
    const unsigned before = Recorder::Audio().getTrack()->size();
    double erasing = 0;
    std::string failure;
    std::thread eraser([&] {
        std::this_thread::sleep_for(std::chrono::seconds(seconds) / 2);
        const auto begin = Clock::now();
        try {
            RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(limit));
        } catch (const std::exception& error) {
            failure = error.what();
        }
        erasing = SecondsSince(begin);
    });
    std::vector<double> delays;
    Replay(input, seconds, [&](const InputRecord& record) {
        const auto begin = Clock::now();
        WriteToTrack(record);
        delays.push_back(SecondsSince(begin));
    });
    eraser.join();
    const unsigned after = Recorder::Audio().getTrack()->size();
    RecordingManager::setMaxRetentionTime(boost::posix_time::seconds(0));
    if (!failure.empty() || (limit != 0 && before <= after)) {
        throw std::runtime_error("nothing was erased " + failure);
    }
    std::sort(delays.begin(), delays.end());
    std::printf("{\"longest\": %f, \"median\": %f, \"erasing\": %f, \"before\": %u, \"after\": %u}\n",
                delays.back(), delays[delays.size() / 2], erasing, before, after);
}

void MeasureCoverage(const std::string& card, std::uint32_t seconds, bool isAsked) {
    const Recorder recorder(card);
    RecordingManager& manager = Recorder::Manager();
    Ptime first;
    Ptime last;
    Recorder::Audio().getRecordingTimePeriod(first, last);
    std::atomic<bool> isOver{false};
    std::size_t spans = 0;
    std::vector<double> asked;
    const auto untilOver = [&](const std::function<void()>& work) {
        return std::thread([&isOver, work] {
            while (!isOver) {
                work();
            }
        });
    };
    std::thread host = untilOver([&] {
        manager.processHistorySaveQueue();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    });
    std::thread client = untilOver([&] {
        if (!isAsked) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            return;
        }
        const auto begin = Clock::now();
        spans = manager.getCoverage(quarn::calvane::AUDIO_TRACK, first, last).size();
        asked.push_back(SecondsSince(begin));
    });
    const Input input;
    std::vector<double> delays;
    std::vector<double> running; // The same without the time that the thread could run and did not.
    bool isPresent = false;
    Replay(input, seconds, [&](const InputRecord& record) {
        const double kept = TimeWithoutProcessor();
        const auto begin = Clock::now();
        if (record.track == Input::kHistory) { // Once a second: the data begins or ends.
            isPresent = !isPresent;
            Recorder::Audio().notifyRecordingDataPresentChange(RecordingClock::now(), isPresent);
        } else {
            WriteToTrack(record);
        }
        delays.push_back(SecondsSince(begin));
        running.push_back(delays.back() - (TimeWithoutProcessor() - kept));
    });
    isOver = true;
    host.join();
    client.join();
    std::sort(delays.begin(), delays.end());
    std::printf("{\"longest\": %f, \"running\": %f, \"median\": %.9f, \"spans\": %zu, \"asking\": %f}\n",
                delays.back(), *std::max_element(running.begin(), running.end()), delays[delays.size() / 2],
                spans, asked.empty() ? 0 : MedianOf(asked));
}

void MeasureCommits(const std::string& folder, std::uint32_t count) {
    const auto store = MultiTrackRecorder::create(folder + "/data", folder + "/database", 98);
    const auto recording = store->newRecording();
    std::vector<boost::shared_ptr<drenn::multi_track_recorder::Track>> tracks;
    for (unsigned track = 0; track < Input::kTracks; ++track) {
        tracks.push_back(recording->newTrack());
    }
    const Input input;
    std::vector<double> commits;
    for (std::uint32_t second = 0; second < count; ++second) {
        input.ForSecond(second, [&](const InputRecord& record) {
            BlobRecord blobs;
            blobs.add({record.header, InputRecord::kHeaderBytes});
            blobs.add({record.body, record.bodyBytes});
            *tracks[record.track] << blobs;
        });
        const auto begin = Clock::now();
        store->flush();
        commits.push_back(SecondsSince(begin));
    }
    std::printf("{\"median\": %f, \"longest\": %f}\n", MedianOf(commits),
                *std::max_element(commits.begin(), commits.end()));
}
