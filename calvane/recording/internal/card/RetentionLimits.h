#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <mutex>

namespace quarn::calvane {

/// How long data is kept, and the settings that it stands in.
///
/// Threads:  any.
/// Errors:   DrennApiException.
class RetentionLimits {
public:
    using Duration = boost::posix_time::time_duration;

    /// Reads the settings, which are made if they are not there.
    void load();
    /// As it was set; see isLimited.
    Duration getMaxTime() const;
    /// Special durations are stored as 0. One whose seconds an int does not hold becomes the nearest that it holds. When
    /// this throws, the limit holds until the end of the process.
    void setMaxTime(const Duration& limit);
    /// Takes over a limit that another process has set, when two calls in a row have read it: somebody may be setting
    /// seconds and microseconds one after the other. Returns whether the limit has changed. Nothing is written.
    bool takeSettings();
    /// What is older is to be erased: the limit before `now`, or not-a-date-time without a limit.
    boost::posix_time::ptime cutoff(const boost::posix_time::ptime& now) const;

private:
    static Duration readSettings();

    std::mutex _settingsMutex; // One reads or writes the settings at a time. Taken before _mutex.
    Duration _settingsSeen;    // Guarded by it.

    mutable std::mutex _mutex;
    Duration _maxTime; // Guarded by it.
};

} // namespace quarn::calvane
