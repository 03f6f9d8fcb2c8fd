#include "calvane/graph/PipelinePlugin.h"

#include <utility>

#include "calvane/graph/IPluginConfiguration.h"
#include "calvane/graph/SettingException.h"
#include "calvane/graph/internal/RunningPlugin.h"
#include "quarn/core/Logger.h"
#include "quarn/core/StringBuilder.h"
#include "quarn/core/StringUtil.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/InterlockedObj.h"

namespace quarn::calvane {

namespace {

/// Listens to what a plugin's outputs do. Nothing is told yet.
class ISourceListener {
public:
    virtual ~ISourceListener() = default;
};

const char* const kDefaultSink = "default";

} // namespace

class PipelinePlugin::PipelinePluginImpl : public ISourceListener {
public:
    PipelinePluginImpl(PipelinePlugin* plugin, std::string pluginName)
        : owner(plugin), logger(core::Logger::GetLogger(pluginName)), name(std::move(pluginName)) {}

    PipelinePluginImpl(const PipelinePluginImpl&) = delete;
    PipelinePluginImpl& operator=(const PipelinePluginImpl&) = delete;

    ~PipelinePluginImpl() override {
        logger->Trace("Disposing of Plugin \"%s\"", core::StringUtil::ToCStr(name, "??"));
    }

    IConnectToSinkHandler& Outputs() const {
        if (connectToSinkHandler == nullptr) {
            throw osa::Exception("Unable to connect to plugin " + name + ": No source available");
        }
        return *connectToSinkHandler;
    }

    PipelinePlugin* owner;
    core::Logger* const logger;
    const char* const runningName = logger->GetName().c_str(); // Lives as long as the process.
    const std::string name;
    std::unique_ptr<IAttachment> attachment;
    IGenerateBufferHandler* generateBufferHandler = nullptr;
    IConnectToSinkHandler* connectToSinkHandler = nullptr;
    IGetSinkHandler* getSinkHandler = nullptr;
    IDrainHandler* drainHandler = nullptr;
    IQueueStatisticsHandler* queueStatisticsHandler = nullptr;
    std::vector<std::string> outputNames;
    PluginThreading threading = PluginThreading::One;
    osa::InterlockedObj refLock;
    int refCount = 1;
};

PipelinePlugin::PipelinePlugin(const IPluginConfiguration& config)
    : impl_(std::make_unique<PipelinePluginImpl>(this, config.GetPluginName())), logger(impl_->logger) {}

PipelinePlugin::PipelinePlugin(const char* name)
    : impl_(std::make_unique<PipelinePluginImpl>(this, name)), logger(impl_->logger) {}

PipelinePlugin::~PipelinePlugin() = default;

std::string PipelinePlugin::GetName() const {
    return impl_->name;
}

Sink* PipelinePlugin::GetSink() {
    return GetSink(kDefaultSink);
}

Sink* PipelinePlugin::GetSink(const std::string& name) {
    if (impl_->getSinkHandler == nullptr) {
        logger->Warning("Attempt to get sink \"%s\" from a plugin that doesn't implement IGetSinkHandler",
                        name.c_str());
        return nullptr;
    }
    Sink* const sink = impl_->getSinkHandler->OnGetSink(name);
    if (sink != nullptr) {
        sink->SetOwner(impl_->runningName);
    }
    return sink;
}

void PipelinePlugin::ConnectToSink(Sink* sink) {
    impl_->Outputs().OnConnectToSink(sink);
}

void PipelinePlugin::ConnectToSink(const std::string& sourceName, Sink* sink) {
    impl_->Outputs().OnConnectToSink(sourceName, sink);
}

bool PipelinePlugin::DisconnectSink(const Sink* sink) {
    if (impl_->connectToSinkHandler == nullptr) {
        logger->Warning("DisconnectSink was not implemented");
        return false;
    }
    return impl_->connectToSinkHandler->OnDisconnectSink(sink);
}

const std::vector<std::string>& PipelinePlugin::GetOutputNames() const {
    return impl_->outputNames;
}

bool PipelinePlugin::GenerateBuffer(osa::TimeStruct& next) {
    if (impl_->generateBufferHandler == nullptr) {
        logger->Warning("IGenerateBufferHandler not implemented!");
        return false;
    }
    const char* const before = RunningPlugin::Enter(impl_->runningName);
    const bool goesOn = impl_->generateBufferHandler->OnGenerateBuffer(next);
    RunningPlugin::Leave(before);
    return goesOn;
}

void PipelinePlugin::Drain() {
    if (impl_->drainHandler != nullptr) {
        impl_->drainHandler->OnDrain();
    }
}

PluginThreading PipelinePlugin::GetThreading() const {
    return impl_->threading;
}

void PipelinePlugin::SetThreading(PluginThreading threading) {
    impl_->threading = threading;
}

bool PipelinePlugin::GetQueueStatistics(QueueStatistics& statistics) const {
    if (impl_->queueStatisticsHandler == nullptr) {
        return false;
    }
    statistics = impl_->queueStatisticsHandler->OnGetQueueStatistics();
    return true;
}

void PipelinePlugin::SetGenerateBufferHandler(IGenerateBufferHandler* handler) {
    impl_->generateBufferHandler = handler;
}

void PipelinePlugin::SetConnectToSinkHandler(IConnectToSinkHandler* handler) {
    impl_->connectToSinkHandler = handler;
}

void PipelinePlugin::SetGetSinkHandler(IGetSinkHandler* handler) {
    impl_->getSinkHandler = handler;
}

void PipelinePlugin::SetDrainHandler(IDrainHandler* handler) {
    impl_->drainHandler = handler;
}

void PipelinePlugin::DeclareOutput(const std::string& name) {
    impl_->outputNames.push_back(name);
}

void PipelinePlugin::SetQueueStatisticsHandler(IQueueStatisticsHandler* handler) {
    impl_->queueStatisticsHandler = handler;
}

void PipelinePlugin::Error(const std::string& message) const {
    logger->Error("%s", message.c_str());
    core::StringBuilder text(impl_->name);
    text << ": " << message;
    throw osa::Exception(text.ToString());
}

void PipelinePlugin::ErrorInSetting(const std::string& key, const std::string& message) const {
    try {
        Error(message);
    } catch (const osa::Exception& error) {
        throw SettingException(impl_->name, key, error.what());
    }
}

void PipelinePlugin::IncRefCount() {
    impl_->refLock.Increment(impl_->refCount);
}

bool PipelinePlugin::IncRefCountIfAlive() {
    if (impl_->refLock.Increment(impl_->refCount) > 1) {
        return true;
    }
    impl_->refLock.Decrement(impl_->refCount);
    return false;
}

bool PipelinePlugin::HasNoMoreReferencesThan(int count) const {
    return impl_->refLock.Read(impl_->refCount) <= count;
}

void PipelinePlugin::Destroy(PipelinePlugin* plugin) {
    if (plugin != nullptr && plugin->impl_->refLock.Decrement(plugin->impl_->refCount) < 1) {
        delete plugin;
    }
}

void PipelinePlugin::Attach(std::unique_ptr<IAttachment> attachment) {
    impl_->attachment = std::move(attachment);
}

void PipelinePlugin::swap(PipelinePlugin& other) noexcept {
    impl_.swap(other.impl_);
    std::swap(logger, other.logger);
    std::swap(impl_->owner, other.impl_->owner);
}

} // namespace quarn::calvane
