#include "calvane/runtime/PipelineManager.h"

#include <algorithm>
#include <exception>
#include <list>
#include <set>

#include "calvane/config/Description.h"
#include "calvane/config/DescriptionKeys.h"
#include "calvane/config/PipelineLoader.h"
#include "calvane/config/PluginManager.h"
#include "calvane/config/internal/LoadRecord.h"
#include "calvane/graph/SettingException.h"
#include "calvane/graph/internal/RunningPlugin.h"
#include "calvane/runtime/IPipelineReporter.h"
#include "calvane/runtime/internal/PipelineRunner.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/Logger.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/MutexAutoLock.h"

namespace quarn::calvane {

class PipelineManager::PipelineManagerImpl : public IPipelineReporter {
public:
    PipelineManagerImpl() : factory_(new PluginManager(this, false)), ownsFactory_(true) {}
    PipelineManagerImpl(IPluginFactory* factory, bool ownsFactory)
        : factory_(factory), ownsFactory_(ownsFactory) {}
    PipelineManagerImpl(const PipelineManagerImpl&) = delete;
    PipelineManagerImpl& operator=(const PipelineManagerImpl&) = delete;

    void ReportFailure(const std::string& pipelineName, const std::string& message) override {
        const osa::MutexAutoLock lock(lock_);
        const std::string text = pipelineName + " shut down with fatal error: " + message;
        logger_->Error("Initiating shutdown: %s", text.c_str());
        const char* const plugin = RunningPlugin::Get();
        failures_.push_back({text, plugin != nullptr ? plugin : ""});
        StopUnlocked();
    }

    ~PipelineManagerImpl() override {
        try {
            Stop();
        } catch (const std::exception& error) {
            LogDiscarded(error.what());
        } catch (...) {
            LogDiscarded("unknown error");
        }
        FreePipelines();
        if (ownsFactory_) {
            delete factory_;
        }
    }

    void AddConnectionTap(IConnectionTap* tap) { record_.taps.Add(tap); }

    void ConfigureFromIniFile(const core::IniFile& ini) {
        const Description description(ini);
        record_.place = {keys::kFrameworkGroup, keys::kPipelines};
        record_.detail.clear();
        RefuseRepeatedNames(description);
        const std::vector<std::string>& names = description.GetPipelineNames();
        logger_->Debug("Loading %u pipelines", static_cast<unsigned int>(names.size()));
        DropRemainsOfFailedLoad(names);
        PipelineLoader loader(factory_, &record_);
        const size_t before = pipelines_.size();
        try {
            for (const std::string& name : names) {
                pipelines_.push_back(MakeHead(name, loader, description));
            }
        } catch (...) {
            for (auto head = std::next(pipelines_.begin(), static_cast<std::ptrdiff_t>(before));
                 head != pipelines_.end(); ++head) {
                remainsOfFailedLoad_.insert((*head)->GetName());
            }
            throw;
        }
    }

    void PipelinesConstructed() {
        record_.place = {};
        record_.detail.clear();
        try {
            for (const auto& head : pipelines_) {
                head->PipelinesConstructed();
            }
        } catch (...) {
            if (const char* const plugin = RunningPlugin::Get()) {
                record_.place.group = plugin;
                RunningPlugin::Leave(nullptr);
            }
            throw;
        }
    }

    LoadFailure GetLoadFailure() const { return {record_.place, record_.detail}; }
    std::vector<DescriptionPlace> GetUnusedSettings() const { return record_.unusedSettings; }

    void Start() {
        const osa::MutexAutoLock lock(lock_);
        remainsOfFailedLoad_.clear();
        for (const auto& head : pipelines_) {
            head->Start();
        }
    }

    void Stop() {
        StopUnlocked();
        WaitForFinish();
    }

    void StopUnlocked() {
        for (const auto& head : pipelines_) {
            head->Stop();
        }
    }

    void WaitForFinish() {
        for (const auto& head : pipelines_) {
            head->Wait();
        }
        // Threads of plugins may still report.
        const osa::MutexAutoLock lock(lock_);
        if (!failures_.empty()) {
            throw osa::Exception(failures_.front().text);
        }
    }

    void Drain() {
        for (const auto& head : pipelines_) {
            head->Drain();
        }
    }

    bool IsRunning() const {
        return std::any_of(pipelines_.begin(), pipelines_.end(),
                           [](const auto& head) { return head->IsRunning(); });
    }

    std::vector<PipelineStatus> GetStatus() const {
        std::vector<PipelineStatus> all;
        for (const auto& head : pipelines_) {
            all.push_back(head->GetStatus());
        }
        return all;
    }

    std::vector<PipelineFailure> GetFailures() const {
        const osa::MutexAutoLock lock(lock_);
        return {failures_.begin(), failures_.end()};
    }

    std::vector<QueueStatus> GetQueueStatus() const {
        std::vector<QueueStatus> queues;
        std::set<const PipelinePlugin*> seen;
        for (const auto& head : pipelines_) {
            for (PipelinePlugin* plugin : head->GetPlugins()) {
                QueueStatistics statistics{};
                if (plugin != nullptr && seen.insert(plugin).second &&
                    plugin->GetQueueStatistics(statistics)) {
                    queues.push_back({plugin->GetName(), statistics});
                }
            }
        }
        return queues;
    }

private:
    // Twice the same would be two threads in one generator.
    static void RefuseRepeatedNames(const Description& description) {
        if (!description.GetIni().HasValue(keys::kFrameworkGroup, keys::kPipelines)) {
            throw SettingException(keys::kFrameworkGroup, keys::kPipelines,
                                   std::string("Missing ") + keys::kPipelines + " setting in " +
                                       keys::kFrameworkGroup + " group");
        }
        std::set<std::string> seen;
        for (const std::string& name : description.GetPipelineNames()) {
            if (!seen.insert(name).second) {
                throw SettingException(keys::kFrameworkGroup, keys::kPipelines,
                                       "Pipeline " + name + " is named twice");
            }
        }
    }

    std::unique_ptr<PipelineHead> MakeHead(const std::string& name, PipelineLoader& loader,
                                           const Description& description) {
        try {
            return std::make_unique<PipelineHead>(name, this, loader, description);
        } catch (const SettingException& error) {
            record_.place = {error.GetGroup(), error.GetKey()};
            record_.threads.RemovePipeline(name);
            throw;
        }
    }

    void DropRemainsOfFailedLoad(const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            if (remainsOfFailedLoad_.erase(name) != 0) {
                pipelines_.remove_if([&name](const auto& head) { return head->GetName() == name; });
            }
        }
    }

    void FreePipelines() {
        // Taken out first: threads of plugins report failures, which walk the list, until their plugins go.
        std::list<std::unique_ptr<PipelineHead>> released;
        {
            const osa::MutexAutoLock lock(lock_);
            released.swap(pipelines_);
        }
        while (!released.empty()) {
            released.pop_front();
        }
    }

    void LogDiscarded(const char* text) const {
        logger_->Error("~PipelineManagerImpl: discarding exception from Stop(): %s", text);
    }

    core::Logger* const logger_ = core::Logger::GetLogger("PipelineManager");
    IPluginFactory* const factory_;
    const bool ownsFactory_;
    LoadRecord record_;
    std::list<std::unique_ptr<PipelineHead>> pipelines_; // Changed only while loading, and at the end.
    std::set<std::string> remainsOfFailedLoad_;

    mutable osa::Mutex lock_;
    std::list<PipelineFailure> failures_; // In the order reported, never cleared.
};

PipelineManager::PipelineManager() : impl_(std::make_unique<PipelineManagerImpl>()) {}

PipelineManager::PipelineManager(IPluginFactory* factory, bool ownsFactory)
    : impl_(std::make_unique<PipelineManagerImpl>(factory, ownsFactory)) {}

PipelineManager::~PipelineManager() = default;

void PipelineManager::AddConnectionTap(IConnectionTap* tap) {
    impl_->AddConnectionTap(tap);
}

void PipelineManager::LoadFromIniFile(const core::IniFile& ini) {
    impl_->ConfigureFromIniFile(ini);
}

void PipelineManager::PipelinesConstructed() {
    impl_->PipelinesConstructed();
}

LoadFailure PipelineManager::GetLoadFailure() const {
    return impl_->GetLoadFailure();
}

std::vector<DescriptionPlace> PipelineManager::GetUnusedSettings() const {
    return impl_->GetUnusedSettings();
}

void PipelineManager::Start() {
    impl_->Start();
}

void PipelineManager::Stop() {
    impl_->Stop();
}

void PipelineManager::SignalShutdown() {
    impl_->StopUnlocked();
}

void PipelineManager::WaitForFinish() {
    impl_->WaitForFinish();
}

void PipelineManager::Drain() {
    impl_->Drain();
}

bool PipelineManager::IsRunning() const {
    return impl_->IsRunning();
}

std::vector<PipelineStatus> PipelineManager::GetStatus() const {
    return impl_->GetStatus();
}

std::vector<PipelineFailure> PipelineManager::GetFailures() const {
    return impl_->GetFailures();
}

std::vector<QueueStatus> PipelineManager::GetQueueStatus() const {
    return impl_->GetQueueStatus();
}

void PipelineManager::ReportFailure(const std::string& pipelineName, const std::string& message) {
    impl_->ReportFailure(pipelineName, message);
}

IPipelineReporter* PipelineManager::GetReporter() {
    return impl_.get();
}

} // namespace quarn::calvane
