#include "Selection.h"

#include <algorithm>
#include <limits>

#include "fleet/FleetFormat.h"

namespace calvane_uplink {
namespace {

constexpr Time kNever = std::numeric_limits<Time>::max();
/// The recorder writes events so late that it can sort them.
constexpr Time kEventDelay = 3 * calvane_recording::kSecond;

} // namespace

void Selection::Update(Recorder& recorder, Time from) {
    if (policy_.events.empty()) {
        return;
    }
    const Time first = std::max<Time>(1, from - policy_.after);
    if (first < lookedFrom_) {
        lookedFrom_ = first;
        seen_ = {first, 0};
    }
    for (bool more = true; more;) {
        const auto page = recorder.GetHistoryPage({lookedFrom_, kNever}, seen_);
        for (const calvane_recording::Event& event : page.history.events) {
            if (event.isOfTrack && policy_.events.count(static_cast<TrackKind>(event.track)) != 0) {
                spans_.Add(event.time - policy_.before, event.time + policy_.after);
            }
        }
        seen_ = page.next;
        more = page.more;
    }
}

bool Selection::WantsFrame(const CardRecord& record) const {
    return !policy_.onlyKeyFrames || (record.flags & calvane_fleet::kKeyFrame) != 0;
}

bool Selection::WantsTime(Time at) const {
    if (policy_.hours && !policy_.hours->Has(at)) {
        return false;
    }
    if (!policy_.IsAroundEvents()) {
        return true;
    }
    return spans_.Has(at) || (topic_ != nullptr && topic_->Has(at));
}

void Selection::Forget(Time until) {
    spans_.Forget(until);
    if (lookedFrom_ != kNever) {
        lookedFrom_ = std::max(lookedFrom_, until - policy_.after);
    }
    if (topic_ != nullptr) {
        topic_->Forget(until);
    }
}

Time Selection::Horizon(Time now) const {
    return policy_.IsAroundEvents() ? now - policy_.before - kEventDelay : kNever;
}

} // namespace calvane_uplink
