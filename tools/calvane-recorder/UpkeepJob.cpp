#include "UpkeepJob.h"

#include <algorithm>
#include <utility>

#include "quarn/core/Logger.h"

namespace calvane_recorder {
namespace {

quarn::core::Logger* GetLogger() {
    static quarn::core::Logger* const logger = quarn::core::Logger::GetLogger("calvane-recorder");
    return logger;
}

} // namespace

UpkeepJob::UpkeepJob(std::string what, Clock::duration period, std::function<void()> work)
    : what_(std::move(what)), period_(period), work_(std::move(work)), pause_(period) {}

void UpkeepJob::RunIfDue(Clock::time_point now) {
    if (now < next_) {
        return;
    }
    try {
        work_();
        if (!problem_.empty()) {
            GetLogger()->Information("%s works again", what_.c_str());
        }
        problem_.clear();
        pause_ = period_;
    } catch (const std::exception& problem) {
        TakeFailure(problem.what());
    }
    next_ = now + pause_;
}

void UpkeepJob::TakeFailure(const std::string& problem) {
    if (problem != problem_) {
        GetLogger()->Warning("%s failed and is tried again: %s", what_.c_str(), problem.c_str());
    }
    problem_ = problem;
    pause_ = std::max(std::min<Clock::duration>(pause_ * 2, kLongestPause), period_);
}

} // namespace calvane_recorder
