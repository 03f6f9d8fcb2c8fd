#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "calvane/Export.h"
#include "calvane/graph/BasicFilterPlugin.h"
#include "quarn/osa/Runnable.h"

namespace quarn::osa {
class Thread;
}

namespace quarn::calvane {

class CalvaneEnv;
class QueueConsumer;

/// Moves the rest of a pipeline onto a thread of its own, behind a bounded queue.
///
/// Settings: "queue.length" (500; 1 to 65535, others modulo 65536 with a warning) buffers that fit; "thread.stack.bytes" (2048);
///           "thread.priority" (0; -119 to 20); "procmon.timeout.seconds" (0; anything else puts the thread
///           under the watchdog, whose period is its own); "allow.drop.on.write" (0; anything else drops a
///           buffer that does not fit instead of failing).
///
/// Threads:   OnBuffer from any number of producers, one at a time inside; it waits for at most 500 ms.
///            Everything downstream runs on the plugin's thread.
/// Errors:    a buffer that does not fit, or that comes when the thread has ended, is deleted. If drops are
///            allowed it is counted, the next one that fits carries the metadata "FirstAfterGap" = 1, and
///            every 100 buffers the number is logged; otherwise OnBuffer throws "NAME: Receiving thread is
///            not running". A debug line has the reason. A failure downstream is reported and ends
///            the thread; the queue is emptied.
/// Lifetime:  construction waits until the thread runs; destruction lets it push what is queued and then ends
///            it. If the queue is full at that time, there is no room for the stop message: its buffers are deleted and
///            the thread is left to end by itself. Destruction then waits for up to 2 s for a push under way
///            and nothing is pushed any more, so what is downstream may be destroyed next, unless it hangs forever.
class CALVANE_API QueuePlugin : public BasicFilterPlugin,
                                public osa::Runnable,
                                private PipelinePlugin::IDrainHandler,
                                private PipelinePlugin::IQueueStatisticsHandler {
public:
    /// `env` may be null: there is then no watchdog, and failures are only logged.
    QueuePlugin(CalvaneEnv* env, const IPluginConfiguration& config);
    ~QueuePlugin() override;

    void OnBuffer(const Sink* sink, Buffer* buffer) override;
    /// The body of the plugin's thread.
    void Run() override;
    /// Does nothing: only destruction ends the thread.
    void Stop() override;

private:
    void OnDrain() override;
    QueueStatistics OnGetQueueStatistics() const override;
    void OnRefused(std::unique_ptr<Buffer> buffer, const char* reason);
    void Enqueue(std::unique_ptr<Buffer>& buffer, bool& periodEnded);
    void CheckDropStats(bool periodEnded);

    CalvaneEnv* const env_;
    bool allowDrop_; // Not changed after construction.
    std::shared_ptr<QueueConsumer> consumer_;
    std::unique_ptr<osa::Thread> thread_;
    bool* monitorEntry_ = nullptr;

    // Changed by producers, with and without the gate in their hands.
    std::atomic<bool> firstAfterGap_{false};
    std::atomic<int> received_{0};
    std::atomic<int> dropped_{0}; // Since the last line in the log.
    std::atomic<std::uint64_t> droppedEver_{0};
};

} // namespace quarn::calvane
