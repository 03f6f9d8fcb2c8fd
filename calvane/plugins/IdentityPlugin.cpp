#include "calvane/plugins/IdentityPlugin.h"

#include "calvane/config/DefaultPluginConfiguration.h"
#include "calvane/config/PluginManager.h"

namespace quarn::calvane {

namespace {

PipelinePlugin* CreateIdentityPlugin(CalvaneEnv*, const IPluginConfiguration& config) {
    return new IdentityPlugin(config);
}

const PluginManager::PluginAutoRegister kRegistration("IdentityPlugin", &CreateIdentityPlugin);

} // namespace

IdentityPlugin::IdentityPlugin() : IdentityPlugin(DefaultPluginConfiguration("IdentityPlugin")) {}

IdentityPlugin::IdentityPlugin(const IPluginConfiguration& config) : BasicFilterPlugin(config) {}

IdentityPlugin::~IdentityPlugin() = default;

void IdentityPlugin::OnBuffer(const Sink*, Buffer* buffer) {
    source->PushBuffer(buffer);
}

} // namespace quarn::calvane
