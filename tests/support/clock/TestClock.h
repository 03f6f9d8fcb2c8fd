#pragma once

#include <functional>
#include <vector>

#include "quarn/osa/TimeStruct.h"

/// A monotonic clock that the test drives, for the whole program that links it: it takes the place of the C
/// library's clock_gettime and clock_nanosleep. Other clocks go on as ever, and so does this one at first.
///
/// Threads: any.
namespace TestClock {

/// The clock shows this time until somebody sets or advances it, or sleeps: a sleep takes no time, but moves
/// the clock to its end.
void Set(const quarn::osa::TimeStruct& now);
void Advance(const quarn::osa::TimeStruct& interval);
/// Calls `action` at the end of the next sleep, on the thread that slept.
void AtEndOfSleep(std::function<void()> action);
/// The length of each sleep since the last call of Set.
std::vector<quarn::osa::TimeStruct> GetSleeps();

/// The clock is the kernel's again.
void Release();

/// The clock runs, but so much behind the kernel's. A wait with a time-out of that length ends at once, since
/// the kernel finds its deadline in the past.
void LagBehind(const quarn::osa::TimeStruct& interval);

} // namespace TestClock
