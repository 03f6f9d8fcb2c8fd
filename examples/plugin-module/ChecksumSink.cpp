#include "ChecksumSink.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "calvane/config/IPluginConfiguration.h"

namespace patterns {

using namespace quarn::calvane;

namespace {

std::uint32_t Crc32(const unsigned char* bytes, unsigned int length) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (unsigned int i = 0; i != length; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit != 8; ++bit) {
            crc = (crc & 1U) != 0 ? crc >> 1U ^ 0xEDB88320U : crc >> 1U;
        }
    }
    return ~crc;
}

} // namespace

ChecksumSink::ChecksumSink(CalvaneEnv*, const IPluginConfiguration& config)
    : BasicSinkPlugin(config), fileName_(config.GetStringOrDefault("filename", "")) {
    const int blockBytes = config.GetIntOrDefault("block.bytes", 0);
    if (blockBytes != 0) {
        BufferFormat required;
        required.Set("block.bytes", blockBytes);
        GetSink()->SetFormat(required);
    }
    if (fileName_.empty()) {
        ErrorInSetting("filename", "filename is missing");
    }
    file_.open(fileName_, std::ios_base::out | std::ios_base::trunc);
    if (!file_) {
        ErrorInSetting("filename", "Cannot open file " + fileName_ + ": " + std::strerror(errno));
    }
}

void ChecksumSink::OnBuffer(const Sink*, Buffer* buffer) {
    const std::unique_ptr<Buffer> owned(buffer);
    const quarn::osa::TimeStruct& time = owned->GetTimestamp();
    std::array<char, 64> line{};
    std::snprintf(line.data(), line.size(), "%u.%06u %u %08x", time.seconds, time.microseconds,
                  owned->GetLength(), static_cast<unsigned int>(Crc32(owned->GetData(), owned->GetLength())));
    file_ << line.data() << std::endl; // Flushed, so that a full disk is seen with the line that did not fit.
    if (!file_) {
        Error("Cannot write file " + fileName_ + ": " + std::strerror(errno));
    }
}

} // namespace patterns
