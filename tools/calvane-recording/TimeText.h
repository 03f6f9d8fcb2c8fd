#pragma once

#include <cstdint>
#include <string>

namespace calvane_recording {

/// Microseconds since 1970-01-01 UTC.
using Time = std::int64_t;

constexpr Time kSecond = 1'000'000;

/// From a time to a time, both included.
struct Span {
    Time first = 0;
    Time last = 0;
    bool IsEmpty() const { return first == 0 && last == 0; } ///< As the services say that there is nothing.
};

/// What a time without an offset is in, and what times are printed in.
enum class Zone {
    Utc,
    Local, ///< As TZ or /etc/localtime says.
};

/// Reads
/// - "2026-11-21T13:00:00.5Z" (ISO 8601): T may be a blank; the fraction, the seconds, the clock time or the date
///   (then it is today's) may be left out; Z, " UTC" or an offset such as +02:00 may follow, otherwise it is in `zone`;
/// - "today", "yesterday", "tomorrow": the begin of that day in `zone`;
/// - "now", "@1795271581.5" (seconds since 1970);
/// - "-5min", "+30s", "1h 30min ago": a duration before or after `now`.
/// Throws std::invalid_argument that names the text.
Time ParseTime(const std::string& text, Time now, Zone zone);

/// Reads "90" (seconds), "5min", "2 hours", "30d" and sums such as "1d12h", in which every number has a unit. Units are
/// those of systemd.time(7) from us to weeks. Throws std::invalid_argument that names the text.
Time ParseDuration(const std::string& text);

/// Throws also when it ends before it begins.
Span ParseSpan(const std::string& from, const std::string& to, Zone zone);

Time Now();
/// "2026-11-21T13:00:00.250000Z" or "2026-11-21T14:00:00.250000+01:00"
std::string TimeText(Time time, Zone zone);
/// "1 d 2 h 3 min 4.5 s"
std::string DurationText(Time duration);

} // namespace calvane_recording
