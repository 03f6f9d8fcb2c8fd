#pragma once

#include <limits>
#include <memory>
#include <utility>

#include "EventSpans.h"
#include "Policy.h"
#include "Recorder.h"
#include "TopicListener.h"

namespace calvane_uplink {

/// Which records of a track the policy wants.
///
/// Threads: one.
class Selection {
public:
    /// `topic` is that of the policy; null without one.
    Selection(const TrackPolicy& policy, std::shared_ptr<TopicListener> topic)
        : policy_(policy), topic_(std::move(topic)) {}

    /// Looks for events that are new, for records from a time on. With a policy that is not about events it does nothing.
    void Update(Recorder& recorder, Time from);
    /// The history may have changed behind what is known of it.
    void LookAgain() { lookedFrom_ = std::numeric_limits<Time>::max(); }
    /// Records before `until` are not asked about any more.
    void Forget(Time until);
    /// Whether records of a time that is not later than Horizon are wanted.
    bool WantsTime(Time at) const;
    bool WantsFrame(const CardRecord& record) const;
    /// What is later cannot be decided on yet, since an event may still come.
    Time Horizon(Time now) const;

private:
    const TrackPolicy policy_;
    const std::shared_ptr<TopicListener> topic_;
    EventSpans spans_;                                   // Around events of the history.
    Time lookedFrom_ = std::numeric_limits<Time>::max(); // Events from then on are known,
    calvane_recording::HistoryCursor seen_;              // up to here.
};

} // namespace calvane_uplink
