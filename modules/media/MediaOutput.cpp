#include "MediaOutput.h"

#include <limits>
#include <utility>

#include "PacketData.h"
#include "calvane/recording/RecordingManager.h"

namespace calvane_media {

using namespace quarn::calvane;
using quarn::osa::TimeStruct;

namespace {

void SetIfKnown(BufferFormat& format, const char* name, std::int64_t value) {
    if (value > 0 && value <= std::numeric_limits<int>::max()) {
        format.Set(name, static_cast<int>(value));
    }
}

BufferFormat FormatOf(const InputStream& stream, const AVCodecParameters& parameters) {
    BufferFormat format;
    format.SetFormat(FormatCode(parameters));
    if (stream.kind == StreamKind::Video) {
        SetIfKnown(format, "width", parameters.width);
        SetIfKnown(format, "height", parameters.height);
        SetIfKnown(format, "bitrate", parameters.bit_rate);
        if (stream.frameRate.num > 0 && stream.frameRate.den > 0) {
            SetIfKnown(format, "frame.rate.millihz",
                       std::int64_t{1000} * stream.frameRate.num / stream.frameRate.den);
        }
    } else if (stream.kind == StreamKind::Audio) {
        SetIfKnown(format, "bits.per.sample", BitsPerSample(parameters));
        SetIfKnown(format, "channels", parameters.ch_layout.nb_channels);
        SetIfKnown(format, "sample.freq", parameters.sample_rate);
    }
    return format;
}

TimeStruct ToTimeStruct(std::int64_t microseconds) {
    return {static_cast<unsigned int>(microseconds / 1'000'000),
            static_cast<unsigned int>(microseconds % 1'000'000)};
}

} // namespace

void MediaOutput::Open(InputStream stream) {
    stream_ = std::move(stream);
    watch_ = std::make_unique<ParameterWatch>(std::move(stream_.parameters));
    Describe();
}

void MediaOutput::Describe() {
    info_.clear();
    RecordingManager::serializeTrackInfo(InfoFromCodec(watch_->Get(), stream_.timeBase, stream_.frameRate),
                                         info_);
    const BufferFormat format = FormatOf(stream_, watch_->Get());
    if (format != format_) {
        format_ = format;
        source_.SetFormat(format_);
    }
}

bool MediaOutput::Push(PacketPtr packet, std::int64_t time, std::int64_t compositionOffset) {
    if (watch_->Examine(*packet)) {
        Describe();
    }
    const bool rises = time >= lastTime_;
    if (!rises) {
        compositionOffset -= lastTime_ - time;
        time = lastTime_;
    }
    lastTime_ = time;
    const bool isKey = (packet->flags & AV_PKT_FLAG_KEY) != 0;
    auto data = std::make_unique<PacketData>(std::move(packet));
    auto buffer = std::make_unique<Buffer>(data.release(), format_);
    BufferMetadata& metadata = buffer->GetMetadata();
    if (isKey) {
        metadata.SetValue("KeyFrame", 1);
        metadata.SetValue("info", info_);
    }
    if (compositionOffset != 0 && compositionOffset == static_cast<int>(compositionOffset)) {
        metadata.SetValue("CompositionOffsetUs", static_cast<int>(compositionOffset));
    }
    if (gap_) {
        metadata.SetValue("FirstAfterGap", 1);
        gap_ = false;
    }
    buffer->SetTimestamp(ToTimeStruct(time));
    ++count_;
    source_.PushBuffer(buffer.release());
    return rises;
}

void MediaOutput::MarkGap(bool mayGoBack) {
    gap_ = count_ != 0;
    if (mayGoBack) {
        lastTime_ = 0;
    }
}

} // namespace calvane_media
