#pragma once

#include <string>

#include "calvane/Export.h"
#include "calvane/graph/BasicSinkPlugin.h"

namespace quarn::calvane {

/// Keeps a file that always holds exactly the latest buffer: each is written to a temporary file, which then
/// takes the target's place, so that a reader never sees half of one.
///
/// Settings: "filename" (required); "temp.filename" (the file name with ".tmp" behind it), which must lie on
///           the same file system.
///
/// Threads:   one at a time.
/// Errors:    construction throws "NAME: You must provide a valid OutputFileName setting". A buffer that
///            cannot be written is skipped; the next one tries again.
class CALVANE_API OverwriteFileSink : public BasicSinkPlugin {
public:
    explicit OverwriteFileSink(const IPluginConfiguration& config);
    ~OverwriteFileSink() override;

    void OnBuffer(const Sink* sink, Buffer* buffer) override;

private:
    const std::string fileName_;
    std::string tempFileName_;
};

} // namespace quarn::calvane
