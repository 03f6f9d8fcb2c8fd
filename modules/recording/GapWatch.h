#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

#include "UsualInterval.h"
#include "calvane/recording/RecordingTrack.h"
#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"

namespace recording {

/// Reports that a track's data is present from the first record on, and absent when none came for longer than usual or
/// when its writer ends. Absent since the last record.
///
/// Threads:  Arrived from the writer's; a thread of its own looks for gaps.
/// Lifetime: the recorder must be there as long as it.
class GapWatch : public quarn::osa::Runnable {
public:
    /// Without an interval only the end of the writer ends the data.
    GapWatch(const std::string& name, const std::optional<UsualInterval>& interval);
    ~GapWatch() override;
    GapWatch(const GapWatch&) = delete;
    GapWatch& operator=(const GapWatch&) = delete;

    /// A record of time `t` was written to the track.
    void Arrived(quarn::calvane::RecordingTrack& track, const boost::posix_time::ptime& t);

private:
    void Run() override;
    void Stop() override;
    void ReportAbsent();

    const std::string name_;

    std::mutex lock_;
    std::condition_variable changed_;
    // Guarded by lock_.
    std::optional<UsualInterval> interval_;
    std::chrono::steady_clock::duration waitedFor_{}; // The gap that the thread wakes up after.
    bool stopping_ = false;
    quarn::calvane::RecordingTrack* present_ = nullptr; // The track while its data is present.
    boost::posix_time::ptime lastTime_;
    std::chrono::steady_clock::time_point lastArrival_;

    quarn::osa::Thread thread_;
};

} // namespace recording
