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

// A length that 16 bits do not hold is cut down to them, which hardly anybody means.
unsigned short ReadLength(const IPluginConfiguration& config) {
    const int length = config.GetIntOrDefault("queue.length", 500);
    const auto bound = static_cast<unsigned short>(length);
    if (bound != length || bound == 0) {
        core::Logger::GetLogger(config.GetPluginName())
            ->Warning("queue.length = %d is outside of 1 to 65535: %u buffers fit", length,
                      static_cast<unsigned int>(bound));
    }
    return bound;
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

const PluginManager::PluginAutoRegister kRegistration("QueuePlugin", &CreateQueuePlugin, R"(
[plugin]
summary = Moves what follows it onto a thread of its own, behind a bounded queue
inputs = default
outputs = -
threads = own

[setting queue.length]
kind = integer
unit = buffers
default = 500
range = 1 to 65535
summary = how many buffers fit

[setting thread.stack.bytes]
kind = integer
unit = bytes
default = 2048
range = 0 to 2147483647
summary = stack of its thread

[setting thread.priority]
kind = integer
default = 0
range = -119 to 20
summary = priority of its thread

[setting procmon.timeout.seconds]
kind = integer
unit = seconds
default = 0
range = -2147483648 to 2147483647
summary = anything but 0: the watchdog, whose period is its own, watches the thread

[setting allow.drop.on.write]
kind = flag
default = 0
summary = drop buffers that do not fit instead of failing
)");

} // namespace

QueuePlugin::QueuePlugin(CalvaneEnv* env, const IPluginConfiguration& config)
    : BasicFilterPlugin(config), env_(env) {
    const unsigned short queueLength = ReadLength(config);
    const auto stackBytes =
        static_cast<unsigned int>(std::max(config.GetIntOrDefault("thread.stack.bytes", 2048), 0));
    const signed char priority = ReadPriority(config);
    const bool watched = config.GetIntOrDefault("procmon.timeout.seconds", 0) != 0;
    allowDrop_ = config.GetIntOrDefault("allow.drop.on.write", 0) != 0;
    consumer_ =
        std::make_shared<QueueConsumer>(config.GetPluginName(), queueLength, watched, logger,
                                        env != nullptr ? env->GetPipelineReporter() : nullptr, source);
    thread_ = std::make_unique<osa::Thread>(consumer_->GetName(), this, stackBytes, priority);
    SetThreading(PluginThreading::Own);
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
    // On a busy machine the thread may come to run later than a producer waits at the gate.
    consumer_->WaitUntilReady();
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
        try {
            env_->DeleteMonitorEntry(monitorEntry_);
        } catch (...) {
            // A destructor may not throw, and the plugin goes whatever becomes of its entry.
        }
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
    } catch (const std::exception& error) {
        OnRefused(std::move(owned), error.what());
    } catch (...) {
        OnRefused(std::move(owned), "Unknown exception");
    }
    CheckDropStats(periodEnded);
}

void QueuePlugin::OnRefused(std::unique_ptr<Buffer> buffer, const char* reason) {
    buffer.reset();
    ++droppedEver_;
    logger->Debug("A buffer is refused: %s", reason);
    if (!allowDrop_) {
        Error("Receiving thread is not running");
    }
    firstAfterGap_ = true;
    ++dropped_;
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
