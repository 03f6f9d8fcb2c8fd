#include "calvane/runtime/CalvaneEnv.h"

#include <algorithm>
#include <list>
#include <map>

#include "calvane/config/internal/Environment.h"
#include "calvane/config/internal/ModuleVersion.h"
#include "calvane/runtime/IPipelineReporter.h"
#include "calvane/runtime/MonitorThread.h"
#include "quarn/core/ContigMemAllocator.h"
#include "quarn/core/StandardHeapAllocator.h"
#include "quarn/memory/ContigMemAlloc.h"
#include "quarn/msgbus/MsgBus.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/MutexAutoLock.h"
#include "quarn/settings/QuarnSettingsClient.h"

namespace quarn::calvane {

class CalvaneEnv::CalvaneEnvImpl {
public:
    using AllocatorList = std::list<std::unique_ptr<core::IMemoryAllocator>>;

    CalvaneEnvImpl(IPipelineReporter* pipelineReporter, bool ownsPipelineReporter)
        : ownsReporter(ownsPipelineReporter), reporter(pipelineReporter) {
        AddDefaultAllocators();
    }
    CalvaneEnvImpl(const CalvaneEnvImpl&) = delete;
    CalvaneEnvImpl& operator=(const CalvaneEnvImpl&) = delete;

    // The monitor, declared before all that is left, stops last.
    ~CalvaneEnvImpl() {
        messageBus.reset();
        privateAllocators.clear();
        defaultAllocators.clear();
        if (ownsReporter) {
            delete reporter;
        }
        reporter = nullptr;
        commObjects.clear();
    }

    AllocatorList privateAllocators;
    AllocatorList defaultAllocators;
    const bool ownsReporter;
    MonitorThread monitor;
    IPipelineReporter* reporter;
    settings::QuarnSettingsClient settingsClient{nullptr};
    osa::Mutex lock{"CalvaneEnvLock"}; // Guards the allocators, the bus and the comm objects.
    std::unique_ptr<msgbus::MsgBus> messageBus;
    std::map<std::string, PluginComm*> commObjects;

private:
    void AddDefaultAllocators() {
        const osa::MutexAutoLock guard(lock);
        defaultAllocators.push_back(std::make_unique<core::StandardHeapAllocator>(0));
        if (osa::ContigMemAlloc::IsSupported()) {
            defaultAllocators.push_back(std::make_unique<core::ContigMemAllocator>());
        }
    }
};

CalvaneEnv::CalvaneEnv() : CalvaneEnv(new DefaultPipelineReporter(), true) {}

CalvaneEnv::CalvaneEnv(IPipelineReporter* reporter, bool ownsReporter)
    : impl_(std::make_unique<CalvaneEnvImpl>(reporter, ownsReporter)) {}

CalvaneEnv::~CalvaneEnv() = default;

void CalvaneEnv::AssertVersionCompatible(const std::string& name, unsigned short major, unsigned short minor,
                                         unsigned short patch) {
    AssertModuleVersionCompatible(name, major, minor, patch);
}

core::IMemoryAllocator* CalvaneEnv::GetDefaultAllocator(int props) {
    const osa::MutexAutoLock lock(impl_->lock);
    const auto& allocators = impl_->defaultAllocators;
    const auto found = std::find_if(allocators.begin(), allocators.end(), [props](const auto& allocator) {
        return allocator->GetProps().Supports(props);
    });
    if (found == allocators.end()) {
        throw osa::Exception("No default allocator supports properties 0x%08X",
                             static_cast<unsigned int>(props));
    }
    return found->get();
}

core::IMemoryAllocator* CalvaneEnv::AddPrivateAllocator(core::IMemoryAllocator* allocator) {
    std::unique_ptr<core::IMemoryAllocator> owned(allocator);
    const osa::MutexAutoLock lock(impl_->lock);
    impl_->privateAllocators.push_back(std::move(owned));
    return allocator;
}

IPipelineReporter* CalvaneEnv::GetPipelineReporter() {
    return impl_->reporter;
}

settings::QuarnSettingsClient* CalvaneEnv::GetQuarnSettingsClient() {
    return &impl_->settingsClient;
}

msgbus::MsgBus* CalvaneEnv::GetMsgBusPtr() {
    const osa::MutexAutoLock lock(impl_->lock);
    if (!impl_->messageBus) {
        impl_->messageBus = std::make_unique<msgbus::MsgBus>();
    }
    return impl_->messageBus.get();
}

bool* CalvaneEnv::AddMonitorEntry(const char* name) {
    return impl_->monitor.AddMonitorEntry(name);
}

void CalvaneEnv::DeleteMonitorEntry(bool* entry) {
    impl_->monitor.DeleteMonitorEntry(entry);
}

CalvaneEnv::PluginComm* CalvaneEnv::AddCommObject(const std::string& name, PluginComm* object) {
    std::unique_ptr<PluginComm> rejected; // Goes when the lock is free again.
    const osa::MutexAutoLock lock(impl_->lock);
    const auto [entry, added] = impl_->commObjects.emplace(name, object);
    if (!added && entry->second != object) {
        rejected.reset(object);
    }
    return entry->second;
}

CalvaneEnv::PluginComm* CalvaneEnv::GetCommObject(const std::string& name) {
    const osa::MutexAutoLock lock(impl_->lock);
    const auto found = impl_->commObjects.find(name);
    return found != impl_->commObjects.end() ? found->second : nullptr;
}

std::shared_ptr<CalvaneEnv> MakeEnvironment() {
    return std::make_shared<CalvaneEnv>();
}

std::shared_ptr<CalvaneEnv> MakeEnvironment(IPipelineReporter* reporter, bool ownsReporter) {
    return std::make_shared<CalvaneEnv>(reporter, ownsReporter);
}

} // namespace quarn::calvane
