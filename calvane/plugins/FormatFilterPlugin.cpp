#include "calvane/plugins/FormatFilterPlugin.h"

#include <string>
#include <vector>

#include "calvane/config/IPluginConfiguration.h"
#include "quarn/core/Logger.h"

namespace quarn::calvane {

FormatFilterPlugin::FormatFilterPlugin(const IPluginConfiguration& config) : BasicFilterPlugin(config) {
    SetThreading(PluginThreading::Any);
    std::vector<std::string> keys;
    config.GetKeys(keys);
    BufferFormat format;
    for (const std::string& key : keys) {
        const int value = config.GetIntOrDefault(key.c_str(), -1);
        logger->Trace("Setting format: %s -> %d", key.c_str(), value);
        format.Set(key.c_str(), value);
    }
    source->SetFormat(format);
    GetSink()->SetFormat(format);
}

FormatFilterPlugin::~FormatFilterPlugin() = default;

void FormatFilterPlugin::OnBuffer(const Sink*, Buffer* buffer) {
    source->PushBuffer(buffer);
}

} // namespace quarn::calvane
