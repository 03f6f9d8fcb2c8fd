#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>
#include <mutex>

#include "calvane/recording/RecordingSpace.h"

namespace quarn::calvane {

/// How long data is kept and how much of it, and the settings that it stands in.
///
/// Threads:   any.
/// Errors:    DrennApiException.
class RetentionLimits {
public:
    using Duration = boost::posix_time::time_duration;

    /// Reads the settings, which are made if they are not there.
    void load();
    /// As it was set; see cutoff.
    Duration getMaxTime() const;
    RecordingSpace getMaxSpace() const;
    /// Special durations are stored as 0. One whose seconds an int does not hold becomes the nearest that it holds. When
    /// this throws, the limit holds until the end of the process.
    void setMaxTime(const Duration& limit);
    /// The same. Whole MiB are kept: a part counts as one.
    void setMaxSpace(const RecordingSpace& limit);
    /// Takes over limits that another process has set, when two calls in a row have read them: somebody may be setting
    /// one after the other. Returns whether a limit has changed. Nothing is written.
    bool takeSettings();
    /// What is older is to be erased: the limit before `now`, or not-a-date-time without a limit.
    boost::posix_time::ptime cutoff(const boost::posix_time::ptime& now) const;

private:
    struct Limits {
        Duration time;
        RecordingSpace space;
        bool operator==(const Limits& other) const { return time == other.time && space == other.space; }
    };

    static Limits readSettings();

    std::mutex _settingsMutex; // One reads or writes the settings at a time. Taken before _mutex.
    Limits _settingsSeen;      // Guarded by it.

    mutable std::mutex _mutex;
    Limits _limits; // Guarded by it.
};

} // namespace quarn::calvane
