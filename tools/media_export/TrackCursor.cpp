#include "media_export/TrackCursor.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace calvane_export {
namespace {

using calvane_recording::kShortestGap;

static_assert(Record::kPadding >= AV_INPUT_BUFFER_PADDING_SIZE, "records are handed to parsers");

bool IsSame(const AVCodecParameters& one, const AVCodecParameters& other) {
    return one.codec_id == other.codec_id && one.width == other.width && one.height == other.height &&
           one.sample_rate == other.sample_rate && one.ch_layout.nb_channels == other.ch_layout.nb_channels &&
           one.extradata_size == other.extradata_size &&
           (one.extradata_size == 0 ||
            std::memcmp(one.extradata, other.extradata, static_cast<std::size_t>(one.extradata_size)) == 0);
}

} // namespace

TrackCursor::TrackCursor(TrackKind track, std::unique_ptr<IRecords> records)
    : track_(track), records_(std::move(records)) {
    hasNext_ = records_->Read(next_);
    Advance();
}

void TrackCursor::Advance() {
    if (hasCurrent_ && hasNext_ && next_.time > current_.time) {
        const Time delta = next_.time - current_.time;
        lastDelta_ = delta <= kShortestGap ? delta : lastDelta_;
    }
    std::swap(current_, next_);
    hasCurrent_ = hasNext_;
    hasNext_ = hasNext_ && records_->Read(next_);
}

std::uint64_t TrackCursor::SkipToKeyFrame() {
    std::uint64_t skipped = 0;
    for (; hasCurrent_ && !current_.isKeyFrame; ++skipped) {
        Advance();
    }
    return skipped;
}

void TrackCursor::TakeCodec() {
    codec_ = calvane_media::CodecFromInfo(*current_.info);
    known_ = current_.info;
}

bool TrackCursor::HasChanged() {
    if (!codec_ || current_.info == known_) {
        return false;
    }
    try {
        if (!IsSame(*calvane_media::CodecFromInfo(*current_.info).parameters, *codec_->parameters)) {
            return true;
        }
    } catch (const std::runtime_error&) {
        return true; // What is wrong is told where it is to be written.
    }
    known_ = current_.info;
    return false;
}

Time TrackCursor::NominalDuration() const {
    if (!codec_) {
        return 0;
    }
    if (codec_->frameRate.num > 0) {
        return av_rescale(calvane_recording::kSecond, codec_->frameRate.den, codec_->frameRate.num);
    }
    const int samples =
        codec_->parameters->codec_type == AVMEDIA_TYPE_AUDIO
            ? av_get_audio_frame_duration2(codec_->parameters.get(), static_cast<int>(current_.size))
            : 0;
    return samples > 0 ? av_rescale(calvane_recording::kSecond, samples, codec_->parameters->sample_rate) : 0;
}

Time TrackCursor::Duration() const {
    const Time nominal = NominalDuration();
    const Time delta = hasNext_ ? next_.time - current_.time : 0;
    if (delta > 0 && delta <= std::max(kShortestGap, 5 * nominal)) {
        return delta;
    }
    return nominal > 0 ? nominal : lastDelta_;
}

} // namespace calvane_export
