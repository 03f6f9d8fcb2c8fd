#include "EventSpans.h"

#include <algorithm>
#include <iterator>

namespace calvane_uplink {

void EventSpans::Add(Time first, Time last) {
    auto next = spans_.lower_bound(first);
    if (next != spans_.begin() && std::prev(next)->second >= first) {
        --next;
    }
    while (next != spans_.end() && next->first <= last) {
        first = std::min(first, next->first);
        last = std::max(last, next->second);
        next = spans_.erase(next);
    }
    spans_.emplace(first, last);
    if (spans_.size() > kMostSpans) {
        const auto second = std::next(spans_.begin());
        spans_.begin()->second = second->second;
        spans_.erase(second);
    }
}

bool EventSpans::Has(Time at) const {
    const auto behind = spans_.upper_bound(at);
    return behind != spans_.begin() && std::prev(behind)->second >= at;
}

void EventSpans::Forget(Time until) {
    while (!spans_.empty() && spans_.begin()->second < until) {
        spans_.erase(spans_.begin());
    }
}

} // namespace calvane_uplink
