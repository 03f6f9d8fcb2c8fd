#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace calvane_recorder {

/// Something to be done again and again. While it fails it is tried less and less often, which the log is told once for
/// each reason, as it is told that it works again.
///
/// Threads: one.
class UpkeepJob {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::minutes kLongestPause{1};

    /// `what` begins the log lines.
    UpkeepJob(std::string what, Clock::duration period, std::function<void()> work);

    /// Does it if its time has come. What it throws is logged.
    void RunIfDue(Clock::time_point now);

private:
    void TakeFailure(const std::string& problem);

    std::string what_;
    Clock::duration period_;
    std::function<void()> work_;
    Clock::duration pause_;
    Clock::time_point next_;
    std::string problem_; // Empty while it works.
};

} // namespace calvane_recorder
