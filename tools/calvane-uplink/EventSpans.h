#pragma once

#include <cstddef>
#include <map>

#include "TimeText.h"

namespace calvane_uplink {

using calvane_recording::Time;

/// The times around events. What overlaps is one span.
///
/// Threads: one.
/// Memory:  bounded: beyond kMostSpans the two oldest become one with all that lies between them.
class EventSpans {
public:
    static constexpr std::size_t kMostSpans = 10'000;

    void Add(Time first, Time last);
    bool Has(Time at) const;
    /// What ends before `until` is not asked about any more.
    void Forget(Time until);

private:
    std::map<Time, Time> spans_; // From first to last, both included.
};

} // namespace calvane_uplink
