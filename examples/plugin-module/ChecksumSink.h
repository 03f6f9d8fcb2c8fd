#pragma once

#include <fstream>
#include <string>

#include "calvane/graph/BasicSinkPlugin.h"

namespace quarn::calvane {
class CalvaneEnv;
}

namespace patterns {

/// Writes one line to a text file for every buffer: timestamp in seconds, length in bytes, and CRC-32 (that
/// of IEEE 802.3, as zip and PNG files have it) in hexadecimal.
///
/// Settings: "filename" (required), "block.bytes" (0): unless it is 0, only a source whose format announces
/// blocks of
///           that length may be connected.
class ChecksumSink : public quarn::calvane::BasicSinkPlugin {
public:
    ChecksumSink(quarn::calvane::CalvaneEnv* env, const quarn::calvane::IPluginConfiguration& config);

    void OnBuffer(const quarn::calvane::Sink* sink, quarn::calvane::Buffer* buffer) override;

private:
    const std::string fileName_;
    std::ofstream file_;
};

} // namespace patterns
