#include "calvane/plugins/QueuePlugin.h"

#include <algorithm>
#include <cerrno>

#include "calvane/config/IPluginConfiguration.h"
#include "calvane/config/PluginManager.h"
#include "calvane/graph/SettingException.h"
#include "calvane/plugins/internal/QueueConsumer.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/Logger.h"
#include "quarn/osa/LockException.h"
#include "quarn/osa/Thread.h"

namespace quarn::calvane {

namespace {

constexpr unsigned int kGateWaitMs = 500;
constexpr int kStatisticsPeriod = 100;
const char* const kPriorityKey = "thread.priority";

signed char ReadPriority(const IPluginConfiguration& config) {
    const int priority = config.GetIntOrDefault(kPriorityKey, 0);
    if (priority < osa::Thread::kMostUrgentPriority || priority > osa::Thread::kLeastUrgentPriority) {
        throw SettingException(config.GetPluginName(), kPriorityKey,
                               std::string("Invalid value of ") + kPriorityKey);
    }
    return static_cast<signed char>(priority);
}

/// Holds the gate of a queue open for its holder alone.
class GateHolder {
public:
    explicit GateHolder(osa::Semaphore& gate) : gate_(gate) {
        if (!gate_.TryLock(kGateWaitMs)) {
            throw osa::LockException(ETIMEDOUT, "Lock Timeout", true);
        }
    }
    ~GateHolder() { gate_.Release(); }
    GateHolder(const GateHolder&) = delete;
    GateHolder& operator=(const GateHolder&) = delete;

private:
    osa::Semaphore& gate_;
};

PipelinePlugin* CreateQueuePlugin(CalvaneEnv* env, const IPluginConfiguration& config) {
    return new QueuePlugin(env, config);
}

const PluginManager::PluginAutoRegister kRegistration("QueuePlugin", &CreateQueuePlugin);

} // namespace

QueuePlugin::QueuePlugin(CalvaneEnv* env, const IPluginConfiguration& config)
    : BasicFilterPlugin(config), env_(env) {
    const auto queueLength = static_cast<unsigned short>(config.GetIntOrDefault("queue.length", 500));
    const auto stackBytes =
        static_cast<unsigned int>(std::max(config.GetIntOrDefault("thread.stack.bytes", 2048), 0));
    const signed char priority = ReadPriority(config);
    const bool watched = config.GetIntOrDefault("procmon.timeout.seconds", 0) != 0;
    allowDrop_ = config.GetIntOrDefault("allow.drop.on.write", 0) != 0;
    consumer_ =
        std::make_shared<QueueConsumer>(config.GetPluginName(), queueLength, watched, logger,
                                        env != nullptr ? env->GetPipelineReporter() : nullptr, source);
    thread_ = std::make_unique<osa::Thread>(consumer_->GetName(), this, stackBytes, priority);
    SetDrainHandler(this);
    SetQueueStatisticsHandler(this);
    logger->Debug("Created QueuePlugin");
    if (env_ != nullptr && watched) {
        monitorEntry_ = env_->AddMonitorEntry(consumer_->GetName());
        consumer_->SetMonitorEntry(monitorEntry_);
    }
    try {
        thread_->Run();
    } catch (...) {
        if (monitorEntry_ != nullptr) {
            env_->DeleteMonitorEntry(monitorEntry_);
        }
        throw;
    }
}

QueuePlugin::~QueuePlugin() {
    logger->Debug("QueuePlugin shutting down");
    try {
        consumer_->SendStop();
        thread_->Join();
    } catch (...) {
        logger->Error("Failed to shut down listener thread");
        consumer_->Abandon();
    }
    if (monitorEntry_ != nullptr) {
        env_->DeleteMonitorEntry(monitorEntry_);
    }
}

void QueuePlugin::OnBuffer(const Sink*, Buffer* buffer) {
    std::unique_ptr<Buffer> owned(buffer);
    if (!owned) {
        return; // In the queue it would be the message to stop.
    }
    bool periodEnded = false;
    try {
        Enqueue(owned, periodEnded);
    } catch (...) {
        owned.reset();
        ++droppedEver_;
        if (!allowDrop_) {
            Error("Receiving thread is not running");
        }
        firstAfterGap_ = true;
        ++dropped_;
    }
    CheckDropStats(periodEnded);
}

void QueuePlugin::Run() {
    const std::shared_ptr<QueueConsumer> consumer = consumer_;
    consumer->Run(); // The plugin may be gone when this returns.
}

void QueuePlugin::Stop() {}

void QueuePlugin::OnDrain() {
    consumer_->WaitUntilHandled();
}

QueueStatistics QueuePlugin::OnGetQueueStatistics() const {
    QueueStatistics statistics = consumer_->GetStatistics();
    statistics.dropped = droppedEver_;
    return statistics;
}

// `periodEnded` is set for the producer whose buffer is the last of a period, dropped or not.
void QueuePlugin::Enqueue(std::unique_ptr<Buffer>& buffer, bool& periodEnded) {
    const GateHolder gate(consumer_->Gate());
    const int received = received_.load(std::memory_order_relaxed) + 1;
    periodEnded = received == kStatisticsPeriod;
    received_.store(periodEnded ? 0 : received, std::memory_order_relaxed);
    if (firstAfterGap_) {
        buffer->GetMetadata().SetValue("FirstAfterGap", 1);
    }
    consumer_->Accept(buffer.get());
    (void)buffer.release(); // The queue's now.
    firstAfterGap_ = false;
}

void QueuePlugin::CheckDropStats(bool periodEnded) {
    if (!periodEnded) {
        return;
    }
    const int dropped = dropped_.exchange(0);
    if (dropped > 0) {
        logger->Information("Dropped %d of last %d buffers", dropped, kStatisticsPeriod);
    }
}

} // namespace quarn::calvane
