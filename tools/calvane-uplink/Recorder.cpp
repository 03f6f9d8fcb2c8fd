#include "Recorder.h"

#include <chrono>
#include <utility>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace calvane_uplink {
namespace {

using calvane_recording::Frame;
using calvane_recording::RecordingClient;

constexpr std::chrono::milliseconds kTimeout{5000};
constexpr std::uint32_t kEventsOfPage = 500;

} // namespace

std::uint64_t HashOf(const void* data, std::size_t size) {
    return XXH3_64bits(data, size);
}

CardReader::CardReader(int descriptor, const Position& from, std::function<bool()> isInterrupted)
    : reader_(descriptor, std::move(isInterrupted)),
      from_(from),
      hasFound_(!from.isBehindRecord && from.next == 0) {}

calvane_recording::Frame CardReader::ReadFrame() {
    try {
        return reader_.Read();
    } catch (const calvane_recording::Interrupted&) {
        throw;
    } catch (const std::runtime_error& problem) {
        throw RecorderError(problem.what());
    }
}

std::optional<CardRecord> CardReader::Read() {
    while (true) {
        Frame frame = ReadFrame();
        switch (frame.kind) {
            case Frame::kRecord: {
                CardRecord record;
                record.time = frame.time;
                record.flags = frame.flags & 3U;
                record.offset = frame.compositionOffset;
                record.payload = std::move(frame.payload);
                if (!IsNew(record)) {
                    continue;
                }
                record.same = same_;
                record.info = info_;
                record.isBehindErased = std::exchange(isBehindErased_, false);
                return record;
            }
            case Frame::kInfo:
                info_.assign(frame.payload.begin(), frame.payload.end());
                break;
            case Frame::kErased:
                isBehindErased_ = true;
                break;
            case Frame::kFailed:
                throw RecorderError("The recorder could not read on: " +
                                    std::string(frame.payload.begin(), frame.payload.end()));
            default:
                CheckPosition();
                return std::nullopt;
        }
    }
}

/// Counts it, and whether it lies behind the position.
bool CardReader::IsNew(const CardRecord& record) {
    same_ = record.time == lastTime_ ? same_ + 1 : 0;
    lastTime_ = record.time;
    if (hasFound_) {
        return true;
    }
    if (!from_.isBehindRecord) {
        hasFound_ = record.time == from_.time + 1 &&
                    HashOf(record.payload.data(), record.payload.size()) == from_.next;
        CheckPosition();
        return true;
    }
    if (record.time == from_.time && same_ < from_.same) {
        return false;
    }
    hasFound_ = record.time == from_.time &&
                (from_.hash == 0 || HashOf(record.payload.data(), record.payload.size()) == from_.hash);
    CheckPosition();
    return false;
}

void CardReader::CheckPosition() {
    if (!hasFound_) {
        throw PositionLost();
    }
}

template <typename Call>
auto Recorder::Ask(const Call& call) -> decltype(call(std::declval<RecordingClient&>())) {
    try {
        if (client_ == nullptr) {
            client_ = std::make_unique<RecordingClient>(kTimeout);
        }
        return call(*client_);
    } catch (const std::runtime_error& problem) {
        client_.reset();
        throw RecorderError(problem.what());
    }
}

Span Recorder::GetSpan(TrackKind track) {
    return Ask(
        [&](RecordingClient& client) { return client.GetTrackSummary(static_cast<unsigned int>(track)); });
}

std::unique_ptr<CardReader> Recorder::Open(TrackKind track, const Position& from, Time last) {
    const Time first = from.isBehindRecord ? from.time : from.time + 1;
    const int descriptor = Ask([&](RecordingClient& client) {
        return client.OpenRecords(static_cast<unsigned int>(track), {first, last});
    });
    return std::make_unique<CardReader>(descriptor, from, isInterrupted_);
}

std::vector<calvane_recording::Interval> Recorder::GetCoverage(TrackKind track, const Span& span) {
    return Ask(
        [&](RecordingClient& client) { return client.GetCoverage(static_cast<unsigned int>(track), span); });
}

calvane_recording::HistoryPage Recorder::GetHistoryPage(const Span& span,
                                                        const calvane_recording::HistoryCursor& from) {
    return Ask([&](RecordingClient& client) { return client.GetHistoryPage(span, from, kEventsOfPage); });
}

std::uint64_t Recorder::GetCard() {
    constexpr std::size_t kDigits = 15;
    const std::string id = Ask([](RecordingClient& client) { return client.GetCardId(); });
    if (id.empty()) {
        throw RecorderError("There is no card");
    }
    return std::stoull(id.substr(0, kDigits), nullptr, 16);
}

bool Recorder::Has(TrackKind track, const Position& record) {
    try {
        const auto reader = Open(track, record, record.time);
        while (reader->Read()) {
        }
        return true;
    } catch (const CardReader::PositionLost&) {
        return false;
    }
}

} // namespace calvane_uplink
