#pragma once

#include <memory>

#include "calvane/Export.h"
#include "calvane/graph/PipelinePlugin.h"

namespace quarn::calvane {

/// Holds a plugin's only input, named "default".
class CALVANE_API SinkCollection : public PipelinePlugin::IGetSinkHandler {
public:
    /// Takes over `sink`.
    explicit SinkCollection(Sink* sink);

    /// The sink when `sinkName` is exactly "default", otherwise null.
    Sink* OnGetSink(const std::string& sinkName) override;
    ~SinkCollection() override;

private:
    const std::unique_ptr<Sink> sink_;
};

} // namespace quarn::calvane
