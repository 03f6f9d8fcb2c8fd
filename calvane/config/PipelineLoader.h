#pragma once

#include <memory>
#include <string>

#include "calvane/Export.h"

namespace quarn::core {
class IniFile;
}

namespace quarn::calvane {

class Description;
class IPluginFactory;
class LoadRecord;
class PluginContainer;

/// Builds the pipeline that a group of an INI file describes: creates its plugins, depth first from the head,
/// and connects each to the one that names it as its successor.
///
/// Threads:   the one that loads pipelines, before any of them runs.
/// Ownership: the factory stays the caller's.
/// Errors:    what was wrong is logged ("LoadPipeline failed: ...") and thrown: a SettingException where the
///            loader finds a fault in one group or key, otherwise, unchanged, what the factory or a plugin
///            threw, of whatever type. A plugin that is its own successor is refused. The container is then as
///            it was before, and plugins that other pipelines share are disconnected from those that are gone.
class CALVANE_API PipelineLoader {
public:
    explicit PipelineLoader(IPluginFactory* factory);
    /// `record` stays the caller's: taps to put into connections, and what the loader notes.
    PipelineLoader(IPluginFactory* factory, LoadRecord* record);
    ~PipelineLoader();
    PipelineLoader(const PipelineLoader&) = delete;
    PipelineLoader& operator=(const PipelineLoader&) = delete;

    /// Replaces what `container` holds.
    void LoadPipeline(PluginContainer& container, const core::IniFile& ini, const std::string& pipelineGroup);
    void LoadPipeline(PluginContainer& container, const Description& description,
                      const std::string& pipelineGroup);

private:
    class PipelineLoaderImpl;
    const std::unique_ptr<PipelineLoaderImpl> impl_;
};

} // namespace quarn::calvane
