#pragma once

#include <mutex>

#include "EventSpans.h"
#include "Policy.h"
#include "quarn/msgbus/MsgBus.h"

namespace calvane_uplink {

/// The times around the messages with a policy's topic that came on the device's message bus since this was made. It outlives
/// the links, since what is recorded while there is none is sent later.
///
/// Threads: any.
/// Errors:  quarn::osa::Exception for a topic that is none.
class TopicListener {
public:
    explicit TopicListener(const TrackPolicy& policy);

    /// Whether it is right for this policy, too.
    bool IsFor(const TrackPolicy& policy) const;
    bool Has(Time at) const;
    void Forget(Time until);

private:
    const TrackPolicy policy_;
    mutable std::mutex lock_;
    EventSpans spans_;          // Guarded by lock_.
    quarn::msgbus::MsgBus bus_; // Last: it calls back.
};

} // namespace calvane_uplink
