#pragma once

#include <memory>
#include <string>

#include "calvane/graph/MultiOutputSourcePlugin.h"

namespace quarn::calvane {
class CalvaneEnv;
}
namespace quarn::core {
class IMemoryAllocator;
}

namespace patterns {

/// Produces blocks of known bytes, to test what follows it. The output "ramp" gives bytes that count up from
/// the number of the block, "stripes" the bytes 0x55 and 0xAA by turns.
///
/// Every buffer has the format property "block.bytes", its number as metadata "Number", counted from 0, and a
/// timestamp: the number times the interval.
///
/// Settings: "count" (10) blocks per output, "block.bytes" (256), "interval.ms" (0) from one to the next.
class PatternSource : public quarn::calvane::MultiOutputSourcePlugin {
public:
    PatternSource(quarn::calvane::CalvaneEnv* env, const quarn::calvane::IPluginConfiguration& config);

    bool OnGenerateBuffer(quarn::osa::TimeStruct& next) override;

private:
    int ReadSetting(const quarn::calvane::IPluginConfiguration& config, const char* key, int defaultValue,
                    int least) const;
    /// Pushes a block whose byte number i is byteAt(i).
    template <typename ByteAt>
    void PushBlock(quarn::calvane::Source& output, ByteAt byteAt) const;

    const std::unique_ptr<quarn::calvane::Source> ramp_;
    const std::unique_ptr<quarn::calvane::Source> stripes_;
    const int count_;
    const unsigned int blockBytes_;
    const quarn::osa::TimeStruct interval_;
    quarn::core::IMemoryAllocator* const allocator_; // The environment's.
    int number_ = 0;                                 // Of the next block.
    quarn::osa::TimeStruct timestamp_;               // Of the next block.
};

} // namespace patterns
