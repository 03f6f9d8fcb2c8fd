#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "UpkeepJob.h"
#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"

namespace calvane_recorder {

/// Does jobs when their time has come, on a thread of its own: one that waits for another process or for the card keeps
/// nobody else waiting.
///
/// Lifetime: from construction to Stop, which waits for the job under way; the destructor calls it.
class UpkeepThread : public quarn::osa::Runnable {
public:
    static constexpr std::chrono::milliseconds kPeriod{250};

    UpkeepThread(const char* name, std::vector<UpkeepJob> jobs);
    ~UpkeepThread() override;
    UpkeepThread(const UpkeepThread&) = delete;
    UpkeepThread& operator=(const UpkeepThread&) = delete;

    void Stop() override;

private:
    void Run() override;

    std::vector<UpkeepJob> jobs_; // The thread's own.

    std::mutex lock_;
    std::condition_variable stopped_;
    bool stop_ = false; // Guarded by lock_.

    quarn::osa::Thread thread_;
};

} // namespace calvane_recorder
