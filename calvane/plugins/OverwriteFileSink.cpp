#include "calvane/plugins/OverwriteFileSink.h"

#include <cstdio>
#include <fstream>
#include <memory>

#include "calvane/config/IPluginConfiguration.h"
#include "calvane/config/PluginManager.h"
#include "quarn/core/Logger.h"

namespace quarn::calvane {

namespace {

PipelinePlugin* CreateOverwriteFileSink(CalvaneEnv*, const IPluginConfiguration& config) {
    return new OverwriteFileSink(config);
}

const PluginManager::PluginAutoRegister kRegistration("OverwriteFileSink", &CreateOverwriteFileSink, R"(
[plugin]
summary = Keeps a file that always holds exactly the latest buffer
inputs = default

[setting filename]
kind = path
required = yes
summary = the file to replace

[setting temp.filename]
kind = path
summary = the file written first, on the same file system; empty: filename with .tmp behind it
)");

} // namespace

OverwriteFileSink::OverwriteFileSink(const IPluginConfiguration& config)
    : BasicSinkPlugin(config),
      fileName_(config.GetStringOrDefault("filename", "")),
      tempFileName_(config.GetStringOrDefault("temp.filename", "")) {
    if (fileName_.empty()) {
        ErrorInSetting("filename", "You must provide a valid OutputFileName setting");
    }
    if (tempFileName_.empty()) {
        tempFileName_ = fileName_ + ".tmp";
    }
    logger->Information("Created new OverwriteFileSink for file %s, using temp file %s", fileName_.c_str(),
                        tempFileName_.c_str());
}

OverwriteFileSink::~OverwriteFileSink() = default;

void OverwriteFileSink::OnBuffer(const Sink*, Buffer* buffer) {
    const std::unique_ptr<Buffer> owned(buffer);
    std::ofstream stream(tempFileName_, std::ios_base::out | std::ios_base::binary);
    stream.write(reinterpret_cast<const char*>(owned->GetData()),
                 static_cast<std::streamsize>(owned->GetLength()));
    stream.close();
    // The next buffer makes up for one that could not be written or moved. Half of one must not take the
    // place of the last good one, though.
    if (stream) {
        (void)std::rename(tempFileName_.c_str(), fileName_.c_str());
    }
}

} // namespace quarn::calvane
