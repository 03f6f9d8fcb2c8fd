#pragma once

#include <string>
#include <vector>

#include "RecordingClient.h"

namespace calvane_recording {

/// A line of 60 characters for a span of time: # where there is data all the while, + where for a part of it, and
/// otherwise by the reason that takes longest: . stopped, c no card, e erased, d dropped, t clock, ? unknown,
/// i interrupted, s space limit, f card full.
std::string Timeline(const std::vector<Interval>& intervals, const Span& span);

} // namespace calvane_recording
