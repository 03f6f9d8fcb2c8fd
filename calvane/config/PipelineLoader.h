#pragma once

#include <memory>
#include <string>

#include "calvane/Export.h"

namespace quarn::core {
class IniFile;
}

namespace quarn::calvane {

class ConnectionTaps;
class IPluginFactory;
class PluginContainer;

/// Builds the pipeline that a group of an INI file describes: creates its plugins, depth first from the head,
/// and connects each to the one that names it as its successor.
///
/// Threads:   the one that loads pipelines, before any of them runs.
/// Ownership: the factory stays the caller's.
/// Errors:    what was wrong is logged ("LoadPipeline failed: ...") and thrown: a SettingException where the
///            fault lies in one group or key, otherwise what the factory or a plugin threw. A plugin that is
///            its own successor is refused. The container is then as it was before, and plugins that other
///            pipelines share are disconnected from those that are gone.
class CALVANE_API PipelineLoader {
public:
    /// `taps` may be null; otherwise they stay the caller's, too.
    explicit PipelineLoader(IPluginFactory* factory, ConnectionTaps* taps = nullptr);
    ~PipelineLoader();
    PipelineLoader(const PipelineLoader&) = delete;
    PipelineLoader& operator=(const PipelineLoader&) = delete;

    /// Replaces what `container` holds.
    void LoadPipeline(PluginContainer& container, const core::IniFile& ini, const std::string& pipelineGroup);

private:
    class PipelineLoaderImpl;
    const std::unique_ptr<PipelineLoaderImpl> impl_;
};

} // namespace quarn::calvane
