#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/shared_ptr.hpp>
#include <map>
#include <memory>
#include <string>

#include "calvane/recording/RecordingTrack.h"
#include "calvane/recording/internal/card/StorageLocation.h"

namespace drenn::multi_track_recorder {
class MultiTrackRecorder;
}

namespace quarn::calvane {

/// The store on the card, the recording in it that is this device's, and its four tracks.
///
/// Threads:  any.
/// Errors:   what the store throws; DrennApiException if the device cannot be told.
/// Lifetime: open from construction to destruction, also while the card is away.
class RecordingCard {
public:
    using Tracks = std::map<track_type, RecordingTrack*>;

    /// Opens the store, or makes it; takes the first recording of this device, or makes it.
    RecordingCard(const StorageLocation& location, ITrackOwner& owner);
    ~RecordingCard();
    RecordingCard(const RecordingCard&) = delete;
    RecordingCard& operator=(const RecordingCard&) = delete;

    const Tracks& dataTracks() const { return _dataTracks; }
    const Tracks& allTracks() const { return _allTracks; } ///< With the history.
    /// Any of the four. Throws std::out_of_range.
    RecordingTrack& track(track_type type) const { return *_allTracks.at(type); }
    RecordingTrack& history() const { return *_historyTrack; }
    drenn::multi_track_recorder::MultiTrackRecorder& store() const { return *_multiTrackRecorder; }
    const std::string& root() const { return _root; }

    /// Of all tracks; not-a-date-time if there is none.
    boost::posix_time::ptime newestTime() const;
    bool isAway() const;
    /// Throws while the card is away: everything would look as if it had been erased.
    void require() const;
    /// Returns when each track could take a record: its writer and whoever reads it are not stuck.
    void awaitWriters() const;
    /// Erases the records of all tracks.
    void clear();

private:
    void openRecording();
    bool takeRecordingOf(const std::string& deviceInfo);
    void initTracks();

    const std::string _root;
    boost::shared_ptr<drenn::multi_track_recorder::MultiTrackRecorder> _multiTrackRecorder;
    boost::shared_ptr<drenn::multi_track_recorder::Recording> _recording;
    std::unique_ptr<RecordingTrack> _audioTrack;
    std::unique_ptr<RecordingTrack> _videoTrack;
    std::unique_ptr<RecordingTrack> _metadataTrack;
    std::unique_ptr<RecordingTrack> _historyTrack;
    Tracks _dataTracks;
    Tracks _allTracks;
};

} // namespace quarn::calvane
