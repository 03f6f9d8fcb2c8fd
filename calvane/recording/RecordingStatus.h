#pragma once

#include <array>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>
#include <string>

#include "calvane/Export.h"
#include "calvane/recording/RecordingSpace.h"
#include "calvane/recording/track_type.h"

namespace quarn::calvane {

/// What has become of the records of one data track since recording started.
struct TrackStatus {
    track_type type = VIDEO_TRACK;
    bool isPresent = false; ///< Its data comes at the moment.
    std::uint64_t writtenRecords = 0;
    std::uint64_t writtenBytes = 0;   ///< Without headers.
    std::uint64_t refusedRecords = 0; ///< By the store, or since the clock has not been set.
    // The records that are there; not-a-date-time if there are none.
    boost::posix_time::ptime first;
    boost::posix_time::ptime last;
};

/// How the recording and its card are.
struct RecordingStatus {
    enum class State {
        Recording, ///< Data of at least one track comes.
        Waiting,   ///< Everything is ready for data.
        ReadOnly,  ///< What is there can be read, and nothing is added; see `problem`.
        CardAway,  ///< The card, or another one than that of the recording, is not in its place.
        Disabled   ///< There is no recording since the start; see `problem`.
    };

    State state = State::Disabled;
    std::string problem; ///< What is wrong, in words; empty when nothing is.
    std::string cardId;  ///< The identity of the recording, 32 hexadecimal digits; empty without one.
    // Of the card's file system, in bytes; 0 when it cannot be asked.
    std::uint64_t cardBytes = 0;
    std::uint64_t usableBytes = 0; ///< What can be written before the oldest data is erased.
    RecordingSpace used;           ///< What is taken, without the last 16 MiB or so of data and of history.
    /// Video, audio, metadata. Without a recording there is nothing in them.
    std::array<TrackStatus, 3> tracks;
};

/// Any thread, before and after RecordingManager::init, too. Looks at records, and so takes the locks of tracks.
CALVANE_API RecordingStatus GetRecordingStatus();

} // namespace quarn::calvane
