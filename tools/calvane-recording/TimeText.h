#pragma once

#include <cstdint>
#include <string>

namespace calvane_recording {

/// Microseconds since 1970-01-01 UTC.
using Time = std::int64_t;

constexpr Time kSecond = 1'000'000;

/// Reads "2026-11-21T13:00:00Z" (ISO 8601; T may be a blank, Z may be left out, a fraction of a second may follow),
/// "2026-11-21", "now", "@1795271581.5" (seconds since 1970), and "-5min" or "+30s": so long before or after `now`.
/// Throws std::invalid_argument that names the text.
Time ParseTime(const std::string& text, Time now);

/// Reads "90", "90s", "5min", "2h", "30d" and sums such as "1d12h"; without a unit it is seconds. Throws
/// std::invalid_argument that names the text.
Time ParseDuration(const std::string& text);

Time Now();
/// "2026-11-21T13:00:00.250000Z"
std::string TimeText(Time time);
/// "1 d 2 h 3 min 4.5 s"
std::string DurationText(Time duration);

} // namespace calvane_recording
