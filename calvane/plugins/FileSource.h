#pragma once

#include <fstream>
#include <memory>
#include <string>

#include "calvane/Export.h"
#include "calvane/graph/BasicSourcePlugin.h"

namespace quarn::core {
class IMemoryAllocator;
}

namespace quarn::calvane {

class CalvaneEnv;

/// Reads a file in blocks and pushes each as one buffer, without format properties or a timestamp.
///
/// Settings: "filename" (required); "loop" (0; anything else rewinds at the end of the file);
///           "buffer.blocksize.bytes" (1024; above 0); "buffer.total" (-1: no limit) buffers to generate;
///           "buffer.maxcount" (5; above 0) buffers that may be on their way at once.
///
/// Threads:   the pipeline's. It waits when all buffers are on their way downstream.
/// Ownership: the buffers' memory is a pool that the environment owns.
/// Errors:    construction throws "NAME: " and "Invalid blocksize", "Invalid buffer.maxcount", "You must
///            provide a valid filename setting" or "Failed to open file ..."; a file that cannot be read any
///            further is logged and ends the pipeline as if it were at its end.
class CALVANE_API FileSource : public BasicSourcePlugin {
public:
    FileSource(CalvaneEnv* env, const IPluginConfiguration& config);
    ~FileSource() override;

    bool OnGenerateBuffer(osa::TimeStruct& time) override;

private:
    void Open(const std::string& fileName);
    void RewindAtEnd();

    std::unique_ptr<std::ifstream> stream_;
    std::string fileName_;
    const bool loop_;
    const int blockSize_;
    int remaining_; // Negative: no limit.
    core::IMemoryAllocator* allocator_ = nullptr;
    const BufferFormat format_;
};

} // namespace quarn::calvane
