#include "calvane/DescribedPipelines.h"

#include "calvane/Findings.h"
#include "calvane/config/IPluginConfiguration.h"
#include "calvane/graph/SettingException.h"

namespace calvane_program {

using quarn::calvane::SettingException;

DescribedPipelines::DescribedPipelines(const quarn::core::IniFile& ini) : ini_(ini), manager_(this, false) {
    plugins_ = std::make_unique<quarn::calvane::PluginManager>(manager_.GetReporter(), false);
}

DescribedPipelines::~DescribedPipelines() = default;

bool DescribedPipelines::Load() {
    try {
        manager_.LoadFromIniFile(ini_);
        manager_.PipelinesConstructed();
        return true;
    } catch (const SettingException& error) {
        PrintError(Locate(ini_, {error.GetGroup(), error.GetKey()}, error.what()));
    } catch (const std::exception& error) {
        PrintError(Locate(ini_, {lastPlugin_, ""}, error.what()));
    }
    return false;
}

quarn::calvane::PipelinePlugin* DescribedPipelines::CreatePlugin(
    const quarn::calvane::IPluginConfiguration& config) {
    lastPlugin_ = config.GetPluginName();
    return plugins_->CreatePlugin(config);
}

} // namespace calvane_program
