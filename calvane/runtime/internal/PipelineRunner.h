#pragma once

#include <atomic>
#include <string>

#include "calvane/graph/PluginContainer.h"
#include "calvane/runtime/PipelineStatus.h"
#include "quarn/osa/Mutex.h"
#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"

namespace quarn::core {
class Logger;
} // namespace quarn::core

namespace quarn::calvane {

class Description;
class IPipelineReporter;
class PipelineLoader;

/// Drives one pipeline: calls its generator again and again, no sooner than it asks for.
///
/// Threads: Run on the pipeline's own thread; the rest from any.
class PipelineRunner final : public osa::Runnable {
public:
    /// Loads the pipeline; throws what the loader throws.
    PipelineRunner(const std::string& name, IPipelineReporter* reporter, PipelineLoader& loader,
                   const Description& description);

    void Run() override;
    /// Asks Run to end before its next call of the generator; a sleep under way is finished first.
    void Stop() override;

    const std::string& GetName() const { return name_; }
    PluginContainer& GetContainer() { return container_; }
    std::atomic<bool>& Running() { return running_; }
    PipelineStatus GetStatus() const;

private:
    PipelineState RunUntilEnd();
    void OnException(const std::string& text);
    void SetState(PipelineState state, const std::string& failure = {});

    core::Logger* const logger_;
    const std::string name_;
    IPipelineReporter* const reporter_;
    PluginContainer container_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> running_{false};

    mutable osa::Mutex stateLock_;
    PipelineState state_ = PipelineState::Loaded;
    std::string failure_;
};

/// A pipeline's runner together with its thread.
class PipelineHead {
public:
    PipelineHead(const std::string& name, IPipelineReporter* reporter, PipelineLoader& loader,
                 const Description& description);
    ~PipelineHead();
    PipelineHead(const PipelineHead&) = delete;
    PipelineHead& operator=(const PipelineHead&) = delete;

    const std::string& GetName() const { return runner_.GetName(); }
    PipelineStatus GetStatus() const { return runner_.GetStatus(); }
    const std::vector<PipelinePlugin*>& GetPlugins() { return runner_.GetContainer().GetPlugins(); }
    void PipelinesConstructed() { runner_.GetContainer().PipelinesConstructed(); }
    void Start();
    void Stop() { runner_.Stop(); }
    void Wait() { thread_.Join(); }
    bool IsRunning() { return runner_.Running(); }
    /// Waits until no plugin holds anything back. After Wait.
    void Drain();

private:
    PipelineRunner runner_;
    osa::Thread thread_;
};

} // namespace quarn::calvane
