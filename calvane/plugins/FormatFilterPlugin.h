#pragma once

#include "calvane/Export.h"
#include "calvane/graph/BasicFilterPlugin.h"

namespace quarn::calvane {

/// Passes every buffer on as it is, and pins the format on both sides: its sink requires, and its source
/// announces, the properties that are its settings. Every setting is read as an integer; none is the
/// plugin's own. Not a built-in type: hosts and modules construct it themselves.
///
/// Threads: any that pushes into its sink.
class CALVANE_API FormatFilterPlugin : public BasicFilterPlugin {
public:
    explicit FormatFilterPlugin(const IPluginConfiguration& config);
    ~FormatFilterPlugin() override;

    void OnBuffer(const Sink* sink, Buffer* buffer) override;
};

} // namespace quarn::calvane
