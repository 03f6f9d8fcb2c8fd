#include "calvane/graph/PluginContainer.h"

#include "calvane/graph/internal/RunningPlugin.h"
#include "quarn/core/Logger.h"
#include "quarn/osa/Exception.h"

namespace quarn::calvane {

class PluginContainer::PluginContainerImpl : public PipelinePlugin::IGenerateBufferHandler {
public:
    PluginContainerImpl() = default;
    PluginContainerImpl(const PluginContainerImpl&) = delete;
    PluginContainerImpl& operator=(const PluginContainerImpl&) = delete;

    ~PluginContainerImpl() override {
        try {
            for (PipelinePlugin*& plugin : plugins) {
                PipelinePlugin* const released = plugin;
                plugin = nullptr;
                PipelinePlugin::Destroy(released);
            }
        } catch (...) {
            // A reference that cannot be given back: those behind it are left alone.
        }
    }

    bool OnGenerateBuffer(osa::TimeStruct& next) override {
        if (plugins.empty() || plugins.front() == nullptr) {
            throw osa::Exception("No Generator Plugin has been specified");
        }
        return plugins.front()->GenerateBuffer(next);
    }

    std::vector<PipelinePlugin*> plugins; // One reference each.
};

PluginContainer::PluginContainer()
    : PipelinePlugin("PluginContainer"), impl_(std::make_unique<PluginContainerImpl>()) {
    SetGenerateBufferHandler(impl_.get());
}

PluginContainer::~PluginContainer() = default;

void PluginContainer::AddPlugin(PipelinePlugin* plugin) {
    PluginReference reference(plugin);
    impl_->plugins.push_back(plugin);
    (void)reference.release();
}

void PluginContainer::PipelinesConstructed() {
    for (PipelinePlugin* plugin : impl_->plugins) {
        if (plugin != nullptr) {
            const char* const before =
                RunningPlugin::Enter(core::Logger::GetLogger(plugin->GetName())->GetName().c_str());
            plugin->PipelinesConstructed();
            RunningPlugin::Leave(before);
        }
    }
}

void PluginContainer::swap(PluginContainer& other) noexcept {
    PipelinePlugin::swap(other);
    impl_.swap(other.impl_);
}

const std::vector<PipelinePlugin*>& PluginContainer::GetPlugins() const {
    return impl_->plugins;
}

} // namespace quarn::calvane
