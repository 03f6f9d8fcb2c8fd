#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "calvane/buffer/Buffer.h"
#include "calvane/graph/QueueStatistics.h"
#include "calvane/graph/Source.h"
#include "quarn/osa/CacheLine.h"
#include "quarn/osa/Mutex.h"
#include "quarn/osa/Semaphore.h"
#include "quarn/osa/tMsgQueue.h"

namespace quarn::core {
class Logger;
}

namespace quarn::calvane {

class IPipelineReporter;

/// All that the thread of a queue plugin touches, so that it can outlive the plugin.
///
/// Threads:   Run on the thread itself; Accept from producers; the rest from the plugin's owner.
/// Ownership: shared by the plugin and its thread. Buffers in the queue belong to it.
// The order of members keeps the producers' line of the cache apart from the thread's.
class QueueConsumer { // NOLINT(clang-analyzer-optin.performance.Padding)
public:
    /// `reporter` may be null.
    QueueConsumer(std::string name, unsigned short queueLength, bool logTimeouts, core::Logger* logger,
                  IPipelineReporter* reporter, std::shared_ptr<Source> source);
    QueueConsumer(const QueueConsumer&) = delete;
    QueueConsumer& operator=(const QueueConsumer&) = delete;

    /// Before the thread starts.
    void SetMonitorEntry(bool* entry) { monitorEntry_ = entry; }
    const char* GetName() const { return name_.c_str(); }

    /// Open while the thread takes buffers; a producer holds it while it hands one over.
    osa::Semaphore& Gate() { return gate_; }
    /// Queues `buffer`, which belongs to the queue if this does not throw. With the gate held.
    void Accept(Buffer* buffer);

    /// All but what was dropped. Any thread.
    QueueStatistics GetStatistics() const;

    /// The thread's body.
    void Run();
    /// Waits until the thread runs and has its own hold on this object. To be called once, when it is started.
    void WaitUntilReady() { ready_.Lock(); }

    /// Tells the thread to end behind the buffers that are queued. Throws when the queue is full.
    void SendStop() { queue_.SendMsg(nullptr); }
    /// For a plugin that is destroyed without having joined the thread: deletes what is queued and ensures that
    /// nothing is pushed, reported or kicked any more.
    void Abandon();
    /// Waits until every accepted buffer has been pushed or deleted.
    void WaitUntilHandled() const;

private:
    Buffer* RetrieveNextBuffer();
    bool Push(std::unique_ptr<Buffer> buffer);
    void Report(const char* failure);
    void ClearBuffers();
    unsigned int DiscardQueued();
    void KickMonitor();

    const std::string name_;
    const unsigned short queueLength_;
    const bool logTimeouts_;
    core::Logger* const logger_;
    const std::shared_ptr<Source> source_;
    osa::Semaphore ready_{"QueueReady", 0, 1};
    alignas(osa::kCacheLineBytes) osa::Semaphore gate_{"QueueSem", 0, 1}; // Producers change it all the time.
    osa::tMsgQueue<Buffer*> queue_;

    osa::Mutex reportLock_{"QueueReport"}; // Held while the reporter is called, and to abandon.
    IPipelineReporter* const reporter_;
    bool* monitorEntry_ = nullptr;
    std::atomic<bool> abandoned_{false};

    // Each written by one thread at a time: no atomic addition is needed.
    alignas(osa::kCacheLineBytes) std::atomic<unsigned int> accepted_{0};
    alignas(osa::kCacheLineBytes) std::atomic<unsigned int> handled_{0};
};

} // namespace quarn::calvane
