#include "UpkeepThread.h"

#include <utility>

namespace calvane_recorder {
namespace {

constexpr unsigned int kStackBytes = 256 * 1024;

} // namespace

UpkeepThread::UpkeepThread(const char* name, std::vector<UpkeepJob> jobs)
    : jobs_(std::move(jobs)), thread_(name, this, kStackBytes, 0) {
    thread_.Run();
}

UpkeepThread::~UpkeepThread() {
    UpkeepThread::Stop();
}

void UpkeepThread::Stop() {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        stop_ = true;
    }
    stopped_.notify_all();
    thread_.Join();
}

void UpkeepThread::Run() {
    std::unique_lock<std::mutex> guard(lock_);
    while (!stop_) {
        guard.unlock();
        for (UpkeepJob& job : jobs_) {
            job.RunIfDue(UpkeepJob::Clock::now());
        }
        guard.lock();
        stopped_.wait_for(guard, kPeriod, [this] { return stop_; });
    }
}

} // namespace calvane_recorder
