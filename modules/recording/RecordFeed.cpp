#include "RecordFeed.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "RecordingClient.h"
#include "record_source/ServiceSource.h"

namespace recording {

using namespace calvane_recording;

namespace {

constexpr unsigned int kStackBytes = 512 * 1024;
constexpr std::size_t kMostBytes = std::size_t{16} << 20;
constexpr auto kLongestWait = std::chrono::milliseconds(100);

/// A track that is being read, and its next record.
struct Reading {
    std::unique_ptr<IRecords> records;
    RecordFeed::Item next;

    bool Advance() { return records->Read(next.record); }
};

} // namespace

RecordFeed::RecordFeed(const std::string& name, const Span& span)
    : span_(span), thread_(name.c_str(), this, kStackBytes, 0) {}

RecordFeed::~RecordFeed() {
    RecordFeed::Stop();
    thread_.Join();
}

void RecordFeed::Start(const std::set<TrackKind>& tracks) {
    tracks_ = tracks;
    thread_.Run();
}

std::optional<RecordFeed::Item> RecordFeed::Next() {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait_for(guard, kLongestWait, [this] { return !items_.empty() || hasRead_; });
    if (items_.empty()) {
        if (!failure_.empty()) {
            throw std::runtime_error(failure_);
        }
        return std::nullopt;
    }
    Item item = std::move(items_.front());
    items_.pop_front();
    bytes_ -= item.record.size;
    changed_.notify_all();
    return item;
}

bool RecordFeed::HasEnded() {
    const std::lock_guard<std::mutex> guard(lock_);
    return hasRead_ && items_.empty();
}

Losses RecordFeed::GetLosses() {
    const std::lock_guard<std::mutex> guard(lock_);
    return losses_;
}

void RecordFeed::Run() {
    std::string failure;
    try {
        ReadAll();
    } catch (const std::exception& problem) {
        failure = problem.what();
    }
    const std::lock_guard<std::mutex> guard(lock_);
    failure_ = failure;
    hasRead_ = true;
    changed_.notify_all();
}

void RecordFeed::Stop() {
    const std::lock_guard<std::mutex> guard(lock_);
    isStopping_ = true;
    changed_.notify_all();
}

bool RecordFeed::IsStopping() {
    const std::lock_guard<std::mutex> guard(lock_);
    return isStopping_;
}

void RecordFeed::ReadAll() {
    RecordingClient client;
    ServiceSource source(client, [this] { return IsStopping(); });
    std::vector<Reading> readings;
    for (const TrackKind track : tracks_) {
        const Span all = source.GetSpan(track);
        const Span wanted{std::max(span_.first, all.first), std::min(span_.last, all.last)};
        if (all.IsEmpty() || wanted.last < wanted.first) {
            continue;
        }
        Reading& reading = readings.emplace_back();
        reading.records = source.Open(track, wanted);
        reading.next.track = track;
    }
    std::vector<Reading*> open;
    for (Reading& reading : readings) {
        if (reading.Advance()) {
            open.push_back(&reading);
        }
    }
    while (!open.empty()) {
        const auto earliest = std::min_element(open.begin(), open.end(), [](const auto* a, const auto* b) {
            return a->next.record.time < b->next.record.time;
        });
        Reading& reading = **earliest;
        if (!Send({reading.next.track, std::move(reading.next.record)})) {
            return;
        }
        reading.next.record = {};
        if (!reading.Advance()) {
            open.erase(earliest);
        }
    }
    const std::lock_guard<std::mutex> guard(lock_);
    for (const Reading& reading : readings) {
        losses_ += reading.records->GetLosses();
    }
}

/// Waits until there is room. False when nobody wants it any more.
bool RecordFeed::Send(Item item) {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, [this] { return isStopping_ || bytes_ < kMostBytes; });
    bytes_ += item.record.size;
    items_.push_back(std::move(item));
    changed_.notify_all();
    return !isStopping_;
}

} // namespace recording
