#pragma once

#include <memory>
#include <vector>

#include "calvane/Export.h"
#include "calvane/graph/PipelinePlugin.h"

namespace quarn::calvane {

/// Holds every plugin of one configured pipeline. The first one added is the generator.
///
/// Threads:   filled by one thread before it runs; GenerateBuffer on the pipeline's thread.
/// Ownership: AddPlugin takes over the caller's reference; they are given back in the order added.
/// Errors:    GenerateBuffer throws Exception "No Generator Plugin has been specified" while it is empty.
class CALVANE_API PluginContainer : public PipelinePlugin {
public:
    PluginContainer();
    ~PluginContainer() override;

    /// Nothing is checked; a null is ignored later.
    void AddPlugin(PipelinePlugin* plugin);
    /// Tells every plugin, in the order added.
    void PipelinesConstructed() override;
    void swap(PluginContainer& other) noexcept;

    /// The plugins in the order added; one that was added twice stands there twice.
    const std::vector<PipelinePlugin*>& GetPlugins() const;

private:
    class PluginContainerImpl;
    std::unique_ptr<PluginContainerImpl> impl_;
};

inline void swap(PluginContainer& a, PluginContainer& b) noexcept {
    a.swap(b);
}

} // namespace quarn::calvane
