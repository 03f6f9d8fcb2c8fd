#include <exception>
#include <utility>

#include "calvane/graph/internal/RunningPlugin.h"
#include "calvane/graph/internal/SignalStack.h"
#include "calvane/plugins/internal/QueueConsumer.h"
#include "calvane/runtime/IPipelineReporter.h"
#include "calvane/runtime/MonitorThread.h"
#include "quarn/core/Logger.h"
#include "quarn/osa/MutexAutoLock.h"
#include "quarn/osa/Thread.h"
#include "quarn/osa/TimeStruct.h"

namespace quarn::calvane {

namespace {

constexpr unsigned int kMessageWaitMs = 2000;
constexpr unsigned int kPollMicroseconds = 1000;
const osa::TimeStruct kPushUnderWayLimit(2, 0);

// For counters that one thread at a time writes.
void CountOneMore(std::atomic<unsigned int>& counter) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

/// Counts one more at the end of a block, however that is left.
class CountAtEnd {
public:
    explicit CountAtEnd(std::atomic<unsigned int>& counter) : counter_(counter) {}
    ~CountAtEnd() { CountOneMore(counter_); }
    CountAtEnd(const CountAtEnd&) = delete;
    CountAtEnd& operator=(const CountAtEnd&) = delete;

private:
    std::atomic<unsigned int>& counter_;
};

/// Releases a semaphore at the end of a block, however that is left.
class ReleaseAtEnd {
public:
    explicit ReleaseAtEnd(osa::Semaphore& semaphore) : semaphore_(semaphore) {}
    ~ReleaseAtEnd() { semaphore_.Release(); }
    ReleaseAtEnd(const ReleaseAtEnd&) = delete;
    ReleaseAtEnd& operator=(const ReleaseAtEnd&) = delete;

private:
    osa::Semaphore& semaphore_;
};

} // namespace

QueueConsumer::QueueConsumer(std::string name, unsigned short queueLength, bool logTimeouts,
                             core::Logger* logger, IPipelineReporter* reporter,
                             std::shared_ptr<Source> source)
    : name_(std::move(name)),
      queueLength_(queueLength),
      logTimeouts_(logTimeouts),
      logger_(logger),
      source_(std::move(source)),
      queue_("QueuePlugin", queueLength),
      reporter_(reporter) {}

void QueueConsumer::Accept(Buffer* buffer) {
    queue_.SendMsg(buffer);
    CountOneMore(accepted_);
}

QueueStatistics QueueConsumer::GetStatistics() const {
    return {queueLength_, static_cast<uint32_t>(queue_.Size()), static_cast<uint32_t>(queue_.HighWaterMark()),
            0};
}

void QueueConsumer::Run() {
    const SignalStack signalStack;
    RunningPlugin::Enter(logger_->GetName().c_str());
    try {
        {
            const ReleaseAtEnd ready(ready_);
            logger_->Information("QueuePlugin thread started");
            gate_.Release();
        }
        std::unique_ptr<Buffer> buffer(RetrieveNextBuffer());
        while (buffer && Push(std::move(buffer))) {
            buffer.reset(RetrieveNextBuffer());
        }
    } catch (const std::exception& error) {
        Report(error.what());
    } catch (...) {
        Report("Unknown exception");
    }
    RunningPlugin::Enter(logger_->GetName().c_str()); // Out of the plugin that has failed.
    try {
        gate_.Lock(); // For good: no producer gets in from here on.
        ClearBuffers();
    } catch (...) {
        logger_->Error("Failed to clear buffers!");
    }
    logger_->Information("QueuePlugin thread terminating");
}

// Every accepted buffer is either discarded here or handled by the thread. When all are, the thread has seen
// the flag, or is bound to, and touches nothing but this object any more.
void QueueConsumer::Abandon() {
    {
        const osa::MutexAutoLock lock(reportLock_);
        abandoned_ = true;
    }
    const unsigned int discarded = DiscardQueued();
    const osa::TimeMonotonic start;
    while (handled_.load(std::memory_order_acquire) + discarded !=
           accepted_.load(std::memory_order_acquire)) {
        if (osa::TimeMonotonic() - start > kPushUnderWayLimit) {
            logger_->Error("A plugin behind the queue does not return; the thread is left behind in it");
            break;
        }
        osa::Thread::CurrentThread::MicroSleep(kPollMicroseconds);
    }
    try {
        SendStop(); // Only wakes the thread; it would find out by itself.
    } catch (const std::exception&) {
        // A queue of length 0 has no room even now.
    }
}

void QueueConsumer::WaitUntilHandled() const {
    while (handled_.load(std::memory_order_acquire) != accepted_.load(std::memory_order_acquire)) {
        osa::Thread::CurrentThread::MicroSleep(kPollMicroseconds);
    }
}

// Null is the message to stop.
Buffer* QueueConsumer::RetrieveNextBuffer() {
    Buffer* buffer = nullptr;
    while (!queue_.TryGetMsg(buffer, kMessageWaitMs)) {
        if (abandoned_) {
            return nullptr;
        }
        if (logTimeouts_) {
            logger_->Information("QueuePlugin timeout");
        }
    }
    if (!abandoned_) {
        MonitorThread::Kick(monitorEntry_);
    }
    return buffer;
}

bool QueueConsumer::Push(std::unique_ptr<Buffer> buffer) {
    const CountAtEnd count(handled_);
    if (abandoned_) {
        buffer.reset(); // Before it counts as handled.
        return false;
    }
    source_->PushBuffer(buffer.release());
    return true;
}

void QueueConsumer::Report(const char* failure) {
    const osa::MutexAutoLock lock(reportLock_);
    if (abandoned_ || reporter_ == nullptr) {
        logger_->Error("The queue's thread ends: %s", failure);
        return;
    }
    reporter_->ReportFailure(name_, failure);
}

void QueueConsumer::ClearBuffers() {
    while (queue_.Size() != 0) {
        std::unique_ptr<Buffer> buffer(RetrieveNextBuffer());
        if (buffer) {
            buffer.reset();
            CountOneMore(handled_);
        }
    }
}

// Returns how many buffers there were.
unsigned int QueueConsumer::DiscardQueued() {
    unsigned int discarded = 0;
    for (Buffer* buffer = nullptr; queue_.TryGetMsg(buffer, 0);) {
        discarded += buffer != nullptr ? 1 : 0;
        delete buffer;
    }
    return discarded;
}

} // namespace quarn::calvane
