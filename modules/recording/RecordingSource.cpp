#include "RecordingSource.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <utility>
#include <vector>

#include "TrackInfo.h"
#include "calvane/buffer/Buffer.h"
#include "calvane/buffer/IBufferData.h"
#include "calvane/config/IPluginConfiguration.h"
#include "calvane/recording/RecordingManager.h"
#include "quarn/core/Logger.h"

namespace recording {

using namespace quarn::calvane;
using namespace calvane_recording;
using quarn::osa::TimeStruct;

namespace {

constexpr std::int64_t kLongestWait = kSecond / 10; // A stop of the pipeline waits for it.
constexpr std::array<TrackKind, 3> kTracks{TrackKind::Video, TrackKind::Audio, TrackKind::Metadata};

/// The payload of a record.
class RecordData : public IBufferData {
public:
    RecordData(std::vector<unsigned char> bytes, std::size_t size)
        : IBufferData(bytes.data(), static_cast<unsigned int>(size)), bytes_(std::move(bytes)) {}

private:
    const std::vector<unsigned char> bytes_; // Moving it did not move the bytes.
};

std::int64_t SteadyNow() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

TimeStruct ToTimeStruct(std::int64_t microseconds) {
    return {static_cast<unsigned int>(microseconds / kSecond),
            static_cast<unsigned int>(microseconds % kSecond)};
}

} // namespace

RecordingSource::RecordingSource(CalvaneEnv*, const IPluginConfiguration& config)
    : MultiOutputSourcePlugin(config),
      isRealtime_(config.GetIntOrDefault("realtime", 1) != 0),
      skipsGaps_(config.GetIntOrDefault("skip.gaps", 0) != 0),
      feed_(GetName(), ReadSpan(config)) {
    for (const TrackKind track : kTracks) {
        outputs_[track].source.reset(CreateSource(NameOf(track)));
    }
}

RecordingSource::~RecordingSource() = default;

Span RecordingSource::ReadSpan(const IPluginConfiguration& config) const {
    Span span{0, std::numeric_limits<Time>::max()};
    const Time now = Now();
    for (const auto& [key, time] : {std::pair("from", &span.first), std::pair("to", &span.last)}) {
        const std::string text = config.GetStringOrDefault(key, "");
        try {
            *time = text.empty() ? *time : ParseTime(text, now, Zone::Utc);
        } catch (const std::invalid_argument& problem) {
            ErrorInSetting(key, std::string(key) + ": " + problem.what());
        }
    }
    if (span.last < span.first) {
        ErrorInSetting("to", "to must not be earlier than from");
    }
    return span;
}

void RecordingSource::OnConnectToSink(const std::string& name, Sink* sink) {
    MultiOutputSourcePlugin::OnConnectToSink(name, sink);
    connected_.insert(ParseTrack(name));
}

void RecordingSource::PipelinesConstructed() {
    if (!std::exchange(isStarted_, true)) {
        feed_.Start(connected_);
    }
}

bool RecordingSource::OnGenerateBuffer(TimeStruct& next) {
    if (!pending_) {
        pending_ = NextItem();
    }
    if (!pending_) {
        if (!feed_.HasEnded()) {
            return true;
        }
        LogLosses();
        return false;
    }
    const std::int64_t wait = GetWait();
    if (wait > 0) {
        next = ToTimeStruct(std::min(wait, kLongestWait));
    } else {
        lastTime_ = pending_->record.time;
        Push(*std::exchange(pending_, std::nullopt));
    }
    return true;
}

std::optional<RecordFeed::Item> RecordingSource::NextItem() {
    try {
        return feed_.Next();
    } catch (const std::runtime_error& problem) {
        Error(problem.what());
    }
}

/// Until the pending record is due.
std::int64_t RecordingSource::GetWait() {
    if (!isRealtime_) {
        return 0;
    }
    const Time time = pending_->record.time;
    const std::int64_t now = SteadyNow();
    if (!dueDifference_ || (skipsGaps_ && time - lastTime_ > kSecond)) {
        dueDifference_ = now - time;
        lastTime_ = time;
    }
    return time + *dueDifference_ - now;
}

void RecordingSource::Push(RecordFeed::Item item) {
    Output& output = outputs_.at(item.track);
    Record& record = item.record;
    const bool isNewInfo = TakeInfo(output, item);
    auto data = std::make_unique<RecordData>(std::move(record.bytes), record.size);
    auto buffer = std::make_unique<Buffer>(data.release(), output.format);
    BufferMetadata& metadata = buffer->GetMetadata();
    if (record.isKeyFrame) {
        metadata.SetValue("KeyFrame", 1);
    }
    if (record.isAfterGap) {
        metadata.SetValue("FirstAfterGap", 1);
    }
    if (isNewInfo || record.isKeyFrame) {
        metadata.SetValue("info", output.infoText);
    }
    if (record.compositionOffset != 0 &&
        record.compositionOffset == static_cast<int>(record.compositionOffset)) {
        metadata.SetValue("CompositionOffsetUs", static_cast<int>(record.compositionOffset));
    }
    buffer->SetTimestamp(ToTimeStruct(record.time));
    output.source->PushBuffer(buffer.release());
}

/// Whether another info holds from this record on.
bool RecordingSource::TakeInfo(Output& output, const RecordFeed::Item& item) {
    if (output.info == item.record.info) {
        return false;
    }
    output.info = item.record.info;
    output.infoText.clear();
    RecordingManager::serializeTrackInfo(*output.info, output.infoText);
    const BufferFormat format = FormatFromTrackInfo(static_cast<track_type>(item.track), *output.info);
    if (format != output.format) {
        output.format = format;
        output.source->SetFormat(format);
    }
    return true;
}

void RecordingSource::LogLosses() {
    const Losses losses = feed_.GetLosses();
    if (losses.unreadable != 0 || losses.erased != 0) {
        logger->Warning("%llu records could not be read; %llu times some were erased before they were",
                        static_cast<unsigned long long>(losses.unreadable),
                        static_cast<unsigned long long>(losses.erased));
    }
}

} // namespace recording
