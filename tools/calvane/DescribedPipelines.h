#pragma once

#include <memory>
#include <string>

#include "calvane/config/IPluginFactory.h"
#include "calvane/config/PluginManager.h"
#include "calvane/runtime/PipelineManager.h"
#include "quarn/core/IniFile.h"

namespace calvane_program {

/// The pipelines of one description, built and connected. Knows where in the description a fault lies.
class DescribedPipelines : private quarn::calvane::IPluginFactory {
public:
    explicit DescribedPipelines(const quarn::core::IniFile& ini);
    ~DescribedPipelines() override;
    DescribedPipelines(const DescribedPipelines&) = delete;
    DescribedPipelines& operator=(const DescribedPipelines&) = delete;

    /// Loads the description. Returns false, with a line on the standard error stream, when it is bad.
    bool Load();

    quarn::calvane::PipelineManager& GetManager() { return manager_; }

private:
    quarn::calvane::PipelinePlugin* CreatePlugin(const quarn::calvane::IPluginConfiguration& config) override;

    const quarn::core::IniFile& ini_;
    std::string lastPlugin_; // The last one that was to be made.
    std::unique_ptr<quarn::calvane::PluginManager> plugins_;
    quarn::calvane::PipelineManager manager_; // Goes first, with its plugins.
};

} // namespace calvane_program
