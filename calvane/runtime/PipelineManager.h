#pragma once

#include <memory>
#include <string>
#include <vector>

#include "calvane/Export.h"
#include "calvane/runtime/PipelineStatus.h"

namespace quarn::core {
class IniFile;
}

namespace quarn::calvane {

class IConnectionTap;
class IPipelineReporter;
class IPluginFactory;

/// The entry point for applications: loads the pipelines of a description, gives each a thread, starts and stops them
/// together, and turns the first failure into an orderly stop of all.
///
/// Threads:   loading, PipelinesConstructed and Start from one thread. Stop, SignalShutdown, WaitForFinish,
///            IsRunning, GetStatus and ReportFailure from any, also at once, once loading is done.
/// Errors:    what the loader, the factory or a plugin throws for a bad description, see PipelineLoader;
///            SettingException where several threads would call a plugin that allows one; Exception with the
///            text of the first failure, every time, from WaitForFinish and Stop.
/// Lifetime:  construct -> LoadFromIniFile (again for more) -> PipelinesConstructed -> Start -> WaitForFinish
///            or Stop -> destroy. Destruction stops what runs; what it finds wrong is logged.
///
/// A stop is noticed before each call of a generator: it takes as long as the call under way, plus what is
/// left of the pause that the generator asked for. Neither is cut short.
class CALVANE_API PipelineManager {
public:
    /// With a plugin manager of its own, whose plugins report their failures here.
    PipelineManager();
    /// `ownsFactory`: the factory is deleted in the end, when all plugins have been released.
    PipelineManager(IPluginFactory* factory, bool ownsFactory);
    virtual ~PipelineManager();
    PipelineManager(const PipelineManager&) = delete;
    PipelineManager& operator=(const PipelineManager&) = delete;

    /// Has every connection that is loaded from now on go through `tap`, which stays the caller's and outlives
    /// this manager. Several taps are chained, the last one added first.
    void AddConnectionTap(IConnectionTap* tap);
    /// Adds the pipelines that "t.pipelines" of the group "calvane" names. When one fails, those before it
    /// stay; a later call that names such a pipeline again replaces it, so that a corrected description can
    /// be loaded. The file is not needed afterwards.
    void LoadFromIniFile(const core::IniFile& ini);
    void PipelinesConstructed();
    /// After LoadFromIniFile or PipelinesConstructed has thrown.
    LoadFailure GetLoadFailure() const;
    /// The settings that no plugin has read, in the order in which the plugins were made.
    std::vector<DescriptionPlace> GetUnusedSettings() const;
    void Start();
    /// SignalShutdown, then WaitForFinish.
    void Stop();
    /// Asks all pipelines to stop and returns at once.
    void SignalShutdown();
    /// Waits until every pipeline's thread has ended; throws the first failure reported so far.
    void WaitForFinish();
    /// Waits, without limit, until the plugins have handed on all that they had accepted: queues with threads
    /// of their own still work when the pipelines' threads have ended. To be called after WaitForFinish. A
    /// failure on the way is reported as any other: call WaitForFinish again to see it.
    void Drain();
    /// Whether the thread of any pipeline runs.
    bool IsRunning() const;
    /// Every pipeline in the order loaded.
    std::vector<PipelineStatus> GetStatus() const;
    /// Every failure so far, in the order reported.
    std::vector<PipelineFailure> GetFailures() const;
    /// Every plugin that has a queue, once, in the order loaded.
    std::vector<QueueStatus> GetQueueStatus() const;

    /// Records a failure, logs "Initiating shutdown: ..." and asks all pipelines to stop.
    void ReportFailure(const std::string& pipelineName, const std::string& message);
    /// The same as an object, for a factory of the caller's own. It works until the last plugin is released.
    IPipelineReporter* GetReporter();

private:
    class PipelineManagerImpl;
    const std::unique_ptr<PipelineManagerImpl> impl_;
};

} // namespace quarn::calvane
