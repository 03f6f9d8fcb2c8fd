#pragma once

#include "calvane/graph/BasicFilterPlugin.h"

namespace quarn::calvane {
class CalvaneEnv;
}
namespace quarn::core {
class IMemoryAllocator;
}

namespace patterns {

/// Combines every byte with a value: takes bits away (and), sets them (or), or turns them round (xor).
///
/// Works in place where it may, and on a copy of a buffer whose memory others share. Formats are handed on.
///
/// Settings: "operation" (xor), "value" (255, from 0 to 255).
class ByteMaskFilter : public quarn::calvane::BasicFilterPlugin,
                       private quarn::calvane::Sink::IFormatHandler {
public:
    ByteMaskFilter(quarn::calvane::CalvaneEnv* env, const quarn::calvane::IPluginConfiguration& config);

    void OnBuffer(const quarn::calvane::Sink* sink, quarn::calvane::Buffer* buffer) override;

private:
    void OnNewFormat(const quarn::calvane::Sink* sink, const quarn::calvane::BufferFormat& format) override;
    quarn::calvane::Buffer* Copy(const quarn::calvane::Buffer& buffer) const;

    quarn::core::IMemoryAllocator* const allocator_; // The environment's.
    // A byte becomes (byte & keep_) ^ turn_.
    unsigned char keep_ = 0xFF;
    unsigned char turn_ = 0;
};

} // namespace patterns
