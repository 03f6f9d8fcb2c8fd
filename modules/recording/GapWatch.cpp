#include "GapWatch.h"

#include "quarn/core/Logger.h"

namespace recording {

GapWatch::GapWatch(const std::string& name, const std::optional<UsualInterval>& interval)
    : name_(name),
      interval_(interval),
      thread_(name.c_str(), this, quarn::osa::Thread::kMinimumStackBytes, 0) {
    thread_.Run();
}

GapWatch::~GapWatch() {
    GapWatch::Stop();
    thread_.Join();
    ReportAbsent();
}

void GapWatch::Arrived(quarn::calvane::RecordingTrack& track, const boost::posix_time::ptime& t) {
    const std::lock_guard<std::mutex> guard(lock_);
    lastArrival_ = std::chrono::steady_clock::now();
    lastTime_ = t;
    if (interval_) {
        interval_->Arrived(lastArrival_);
        if (interval_->LongestGap() < waitedFor_) {
            changed_.notify_one();
        }
    }
    if (present_ == nullptr) {
        track.notifyRecordingDataPresentChange(t, true);
        present_ = &track;
        changed_.notify_one();
    }
}

void GapWatch::Run() {
    std::unique_lock<std::mutex> guard(lock_);
    while (!stopping_) {
        if (present_ == nullptr || !interval_) {
            changed_.wait(guard);
            continue;
        }
        waitedFor_ = interval_->LongestGap();
        const auto end = lastArrival_ + waitedFor_;
        if (changed_.wait_until(guard, end) == std::cv_status::timeout &&
            lastArrival_ + interval_->LongestGap() <= std::chrono::steady_clock::now()) {
            ReportAbsent();
        }
    }
}

void GapWatch::Stop() {
    const std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
    changed_.notify_one();
}

/// With lock_ held, or when there is no other thread any more.
void GapWatch::ReportAbsent() {
    if (present_ == nullptr) {
        return;
    }
    try {
        present_->notifyRecordingDataPresentChange(lastTime_, false);
    } catch (const std::exception& problem) {
        quarn::core::Logger::GetLogger(name_)->Warning("The end of the data was not reported: %s",
                                                       problem.what());
    }
    present_ = nullptr;
}

} // namespace recording
