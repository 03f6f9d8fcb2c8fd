#pragma once

namespace quarn::calvane {

/// The settings of the longest time that data is kept, in whole seconds and the rest in microseconds.
inline constexpr char kMaxRetentionTimeSeconds[] = "recording.max.retention.sec";
inline constexpr char kMaxRetentionTimeMicroseconds[] = "recording.max.retention.usec";

/// The settings of the most space, in MiB, that the data tracks take together, and that the history takes. 0: no limit.
inline constexpr char kMaxDataMebibytes[] = "recording.max.data.mib";
inline constexpr char kMaxHistoryMebibytes[] = "recording.max.history.mib";

/// How long a start waits for a clock that is behind the newest record; 300 if it is not set, 0 not at all.
inline constexpr char kClockWaitSeconds[] = "recording.clock.wait.sec";

} // namespace quarn::calvane
