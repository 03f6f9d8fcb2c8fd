#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>

#include "calvane/Export.h"

namespace quarn::calvane {

/// Where the recorder has its time from.
///
/// Threads: any.
class CALVANE_API RecordingClock {
public:
    struct Source {
        boost::posix_time::ptime (*now)();
        std::int64_t (*steadyMicroseconds)();
        bool (*isSynchronised)() = nullptr; ///< Null: never.
    };

    /// In UTC.
    static boost::posix_time::ptime now();
    /// From a start of its own; it never jumps, and goes on while the machine is suspended.
    static std::int64_t steadyMicroseconds();
    /// Whether somebody who knows it has told the system the time: an NTP client has, or the kernel says so.
    static bool isSynchronised();
    /// For tests. Null is the machine's own clock, as from the start; `source` must stay.
    static void setSource(const Source* source);
};

} // namespace quarn::calvane
