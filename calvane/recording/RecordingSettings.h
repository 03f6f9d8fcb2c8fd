#pragma once

namespace quarn::calvane {

/// The settings of the longest time that data is kept, in whole seconds and the rest in microseconds.
inline constexpr char kMaxRetentionTimeSeconds[] = "recording.max.retention.sec";
inline constexpr char kMaxRetentionTimeMicroseconds[] = "recording.max.retention.usec";

/// How long a start waits for a clock that is behind the newest record; 300 if it is not set, 0 not at all.
inline constexpr char kClockWaitSeconds[] = "recording.clock.wait.sec";

} // namespace quarn::calvane
