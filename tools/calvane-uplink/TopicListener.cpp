#include "TopicListener.h"

#include "Recorder.h"

namespace calvane_uplink {

TopicListener::TopicListener(const TrackPolicy& policy) : policy_(policy) {
    bus_.Subscribe(policy_.topic, [this](const quarn::msgbus::Message&) {
        const Time now = calvane_recording::Now();
        const std::lock_guard<std::mutex> guard(lock_);
        spans_.Add(now - policy_.before, now + policy_.after);
    });
}

bool TopicListener::IsFor(const TrackPolicy& policy) const {
    return policy.topic == policy_.topic && policy.before == policy_.before && policy.after == policy_.after;
}

bool TopicListener::Has(Time at) const {
    const std::lock_guard<std::mutex> guard(lock_);
    return spans_.Has(at);
}

void TopicListener::Forget(Time until) {
    const std::lock_guard<std::mutex> guard(lock_);
    spans_.Forget(until);
}

} // namespace calvane_uplink
