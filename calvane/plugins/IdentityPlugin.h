#pragma once

#include "calvane/Export.h"
#include "calvane/graph/BasicFilterPlugin.h"

namespace quarn::calvane {

/// Passes every buffer on as it is.
///
/// Threads: any that pushes into its sink.
class CALVANE_API IdentityPlugin : public BasicFilterPlugin {
public:
    /// Named "IdentityPlugin".
    IdentityPlugin();
    explicit IdentityPlugin(const IPluginConfiguration& config);
    ~IdentityPlugin() override;

    void OnBuffer(const Sink* sink, Buffer* buffer) override;
};

} // namespace quarn::calvane
