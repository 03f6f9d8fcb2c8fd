#include "calvane/plugins/IdentityPlugin.h"

#include "calvane/config/DefaultPluginConfiguration.h"
#include "calvane/config/PluginManager.h"

namespace quarn::calvane {

namespace {

PipelinePlugin* CreateIdentityPlugin(CalvaneEnv*, const IPluginConfiguration& config) {
    return new IdentityPlugin(config);
}

const PluginManager::PluginAutoRegister kRegistration("IdentityPlugin", &CreateIdentityPlugin, R"(
[plugin]
summary = Hands every buffer on as it is
inputs = default
outputs = -
threads = any
)");

} // namespace

IdentityPlugin::IdentityPlugin() : IdentityPlugin(DefaultPluginConfiguration("IdentityPlugin")) {}

IdentityPlugin::IdentityPlugin(const IPluginConfiguration& config) : BasicFilterPlugin(config) {
    SetThreading(PluginThreading::Any);
}

IdentityPlugin::~IdentityPlugin() = default;

void IdentityPlugin::OnBuffer(const Sink*, Buffer* buffer) {
    source->PushBuffer(buffer);
}

} // namespace quarn::calvane
