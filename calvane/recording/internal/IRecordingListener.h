#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "calvane/recording/track_type.h"

namespace quarn::calvane {

/// Is told what clients want to know at once.
///
/// Threads: those that write and erase. onDataDeleted is called with a track's lock held.
class IRecordingListener {
public:
    virtual ~IRecordingListener() = default;

    virtual void onDataPresent(track_type type, bool present) = 0;
    virtual void onDataDeleted(track_type type, const boost::posix_time::ptime& first,
                               const boost::posix_time::ptime& last) = 0;
};

} // namespace quarn::calvane
