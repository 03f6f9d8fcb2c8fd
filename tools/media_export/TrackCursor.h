#pragma once

#include <memory>
#include <optional>

#include "media/CodecInfo.h"
#include "media_export/MovieWriter.h"
#include "record_source/RecordSource.h"

namespace calvane_export {

using calvane_recording::IRecords;
using calvane_recording::Record;
using calvane_recording::TrackKind;

/// The records of a track with the one that follows, and what is written of them where.
class TrackCursor {
public:
    TrackCursor(TrackKind track, std::unique_ptr<IRecords> records);

    TrackKind Track() const { return track_; }
    bool IsMetadata() const { return track_ == TrackKind::Metadata; }
    bool HasRecord() const { return hasCurrent_; }
    const Record& Current() const { return current_; }
    void Advance();
    calvane_recording::Losses GetLosses() const { return records_->GetLosses(); }
    /// Passes over what cannot be decoded since the key frame is missing; returns how many records.
    std::uint64_t SkipToKeyFrame();

    /// Takes the codec from the info of the current record. Throws std::runtime_error.
    void TakeCodec();
    const calvane_media::CodecInfo* Codec() const { return codec_ ? &*codec_ : nullptr; }
    /// Whether the current record is of another codec, size or the like than what TakeCodec took.
    bool HasChanged();

    /// How long the current record lasts: up to the next one, unless that is far away.
    Time Duration() const;
    /// How long a record lasts by what is known of the codec; 0: it is not known.
    Time NominalDuration() const;

    std::optional<std::size_t> stream; ///< Where it is written to; nothing: it is left out.
    bool isText = false;

private:
    const TrackKind track_;
    const std::unique_ptr<IRecords> records_;
    Record current_;
    Record next_;
    bool hasCurrent_ = false;
    bool hasNext_ = false;
    Time lastDelta_ = 0;
    std::optional<calvane_media::CodecInfo> codec_;
    std::shared_ptr<const calvane_recording::InfoMap> known_; ///< It has the same codec.
};

} // namespace calvane_export
