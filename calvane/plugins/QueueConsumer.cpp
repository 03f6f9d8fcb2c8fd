#include <exception>
#include <utility>

#include "calvane/plugins/QueueConsumerImpl.h"
#include "calvane/runtime/IPipelineReporter.h"
#include "calvane/runtime/MonitorThread.h"
#include "quarn/core/Logger.h"
#include "quarn/osa/MutexAutoLock.h"
#include "quarn/osa/Thread.h"

namespace quarn::calvane {

namespace {

constexpr unsigned int kMessageWaitMs = 2000;
constexpr unsigned int kPushUnderWayMs = 2000;
constexpr unsigned int kDrainPollMicroseconds = 1000;

/// Counts one more, also when what it stands around throws.
class CountAtEnd {
public:
    explicit CountAtEnd(std::atomic<unsigned int>& counter) : counter_(counter) {}
    ~CountAtEnd() { counter_.store(counter_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }
    CountAtEnd(const CountAtEnd&) = delete;
    CountAtEnd& operator=(const CountAtEnd&) = delete;

private:
    std::atomic<unsigned int>& counter_;
};

} // namespace

QueueConsumer::QueueConsumer(std::string name, unsigned short queueLength, bool logTimeouts,
                             core::Logger* logger, IPipelineReporter* reporter,
                             std::shared_ptr<Source> source)
    : name_(std::move(name)),
      logTimeouts_(logTimeouts),
      logger_(logger),
      source_(std::move(source)),
      queue_("QueuePlugin", queueLength),
      reporter_(reporter) {}

void QueueConsumer::Accept(Buffer* buffer) {
    queue_.SendMsg(buffer);
    const CountAtEnd count(accepted_);
}

void QueueConsumer::Run() {
    entered_.Release();
    try {
        logger_->Information("QueuePlugin thread started");
        gate_.Release();
        std::unique_ptr<Buffer> buffer(RetrieveNextBuffer());
        while (buffer && Push(std::move(buffer))) {
            buffer.reset(RetrieveNextBuffer());
        }
    } catch (const std::exception& error) {
        Report(error.what());
    } catch (...) {
        Report("Unknown exception");
    }
    try {
        gate_.Lock(); // For good: no producer gets in from here on.
        ClearBuffers();
    } catch (...) {
        logger_->Error("Failed to clear buffers!");
    }
    logger_->Information("QueuePlugin thread terminating");
}

void QueueConsumer::Abandon() {
    abandoned_ = true;
    entered_.Lock(); // From here on the thread needs nothing of the plugin itself.
    const bool idle = pushLock_.TryLock(kPushUnderWayMs);
    if (!idle) {
        logger_->Error("A plugin behind the queue does not return; its thread is left behind in it");
    }
    Buffer* buffer = nullptr;
    while (queue_.TryGetMsg(buffer, 0)) {
        delete buffer;
    }
    if (idle) {
        pushLock_.Unlock();
    }
    try {
        SendStop(); // Only wakes the thread; it would find out by itself.
    } catch (const std::exception&) {
        // A queue of length 0 has no room even now.
    }
}

void QueueConsumer::WaitUntilHandled() const {
    while (handled_.load(std::memory_order_acquire) != accepted_.load(std::memory_order_acquire)) {
        osa::Thread::CurrentThread::MicroSleep(kDrainPollMicroseconds);
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
    KickMonitor();
    return buffer;
}

bool QueueConsumer::Push(std::unique_ptr<Buffer> buffer) {
    const CountAtEnd count(handled_);
    const osa::MutexAutoLock lock(pushLock_);
    if (abandoned_) {
        return false;
    }
    source_->PushBuffer(buffer.release());
    return true;
}

void QueueConsumer::Report(const char* failure) {
    const osa::MutexAutoLock lock(pushLock_);
    if (abandoned_ || reporter_ == nullptr) {
        logger_->Error("The queue's thread ends: %s", failure);
        return;
    }
    reporter_->ReportFailure(name_, failure);
}

void QueueConsumer::ClearBuffers() {
    while (queue_.Size() != 0) {
        const CountAtEnd count(handled_);
        delete RetrieveNextBuffer();
    }
}

void QueueConsumer::KickMonitor() {
    if (monitorEntry_ != nullptr) {
        const osa::MutexAutoLock lock(pushLock_);
        if (!abandoned_) {
            MonitorThread::Kick(monitorEntry_);
        }
    }
}

} // namespace quarn::calvane
