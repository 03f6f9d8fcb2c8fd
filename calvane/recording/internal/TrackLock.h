#pragma once

#include <boost/shared_ptr.hpp>
#include <exception>
#include <mutex>

#include "drenn/multi_track_recorder/Track.h"

namespace quarn::calvane {

/// Holds a track's lock, which is re-entrant.
using TrackLock = std::lock_guard<const drenn::multi_track_recorder::Track>;

/// Sets a track's read position back when it goes. Within a TrackLock.
class ReadPositionKeeper {
public:
    explicit ReadPositionKeeper(drenn::multi_track_recorder::Track& track)
        : _track(track), _position(track.tellg()) {}
    ~ReadPositionKeeper() {
        try {
            _track.seekg(_position);
        } catch (const std::exception&) { // The track is gone, and its position with it.
        }
    }
    ReadPositionKeeper(const ReadPositionKeeper&) = delete;
    ReadPositionKeeper& operator=(const ReadPositionKeeper&) = delete;

private:
    drenn::multi_track_recorder::Track& _track;
    const unsigned int _position;
};

} // namespace quarn::calvane
