#pragma once

#include <boost/shared_ptr.hpp>
#include <map>

#include "record_source/RecordSource.h"

namespace drenn::multi_track_recorder {
class MultiTrackRecorder;
class Recording;
class Track;
} // namespace drenn::multi_track_recorder

namespace calvane_recording {

/// A card, or a copy of one, that no recorder has open. Nothing on it is changed.
///
/// Errors: std::runtime_error when there is no store, when it is in use, and when it has recordings of several devices
///         and none or another one is named.
class CardSource : public IRecordSource {
public:
    /// `folder` has `data` and `database`. `device`: model, comma, serial number, as calvane-store prints it; may be empty.
    CardSource(const std::string& folder, const std::string& device);
    ~CardSource() override;

    Span GetSpan(TrackKind track) override;
    std::unique_ptr<IRecords> Open(TrackKind track, const Span& span) override;
    std::optional<KeyFrame> FindKeyFrame(TrackKind track, Time at) override;

private:
    using Track = drenn::multi_track_recorder::Track;

    void TakeTracks(const drenn::multi_track_recorder::Recording& recording);
    /// Null if there is none.
    Track* Find(TrackKind track) const;

    const boost::shared_ptr<drenn::multi_track_recorder::MultiTrackRecorder> store_;
    std::map<TrackKind, boost::shared_ptr<Track>> tracks_; ///< Those with records.
};

} // namespace calvane_recording
