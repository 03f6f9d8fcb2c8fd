#pragma once

#include <limits>
#include <set>

#include "Policy.h"
#include "Recorder.h"

namespace calvane_uplink {

/// Which records of a track the policy wants.
///
/// Threads: one.
class Selection {
public:
    explicit Selection(const TrackPolicy& policy) : policy_(policy) {}

    /// Looks for events that are new. With a policy that is not about events it does nothing.
    void Update(Recorder& recorder, Time from);
    /// A message of the policy's topic came.
    void AddEvent(Time at) { events_.insert(at); }
    /// Whether records of a time that is not later than Horizon are wanted.
    bool WantsTime(Time at) const;
    bool WantsFrame(const CardRecord& record) const;
    /// What is later cannot be decided on yet, since an event may still come.
    Time Horizon(Time now) const;

private:
    const TrackPolicy policy_;
    std::set<Time> events_;
    Time lookedFrom_ = std::numeric_limits<Time>::max(); // Events from then on are known,
    calvane_recording::HistoryCursor seen_;              // up to here.
};

} // namespace calvane_uplink
