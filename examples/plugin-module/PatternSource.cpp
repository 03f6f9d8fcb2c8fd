#include "PatternSource.h"

#include "calvane/config/IPluginConfiguration.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/IMemoryAllocator.h"

namespace patterns {

using namespace quarn::calvane;
using quarn::core::AllocatorProps;
using quarn::osa::TimeStruct;

namespace {

TimeStruct FromMilliseconds(int milliseconds) {
    const auto whole = static_cast<unsigned int>(milliseconds);
    return {whole / 1000, whole % 1000 * 1000};
}

} // namespace

PatternSource::PatternSource(CalvaneEnv* env, const IPluginConfiguration& config)
    : MultiOutputSourcePlugin(config),
      ramp_(CreateSource("ramp")),
      stripes_(CreateSource("stripes")),
      count_(ReadSetting(config, "count", 10, 0)),
      blockBytes_(static_cast<unsigned int>(ReadSetting(config, "block.bytes", 256, 1))),
      interval_(FromMilliseconds(ReadSetting(config, "interval.ms", 0, 0))),
      allocator_(env->GetDefaultAllocator(AllocatorProps::kAddressable)) {
    BufferFormat format;
    format.Set("block.bytes", static_cast<int>(blockBytes_));
    ramp_->SetFormat(format);
    stripes_->SetFormat(format);
}

bool PatternSource::OnGenerateBuffer(TimeStruct& next) {
    if (number_ == count_) {
        return false;
    }
    next = interval_;
    PushBlock(*ramp_, [first = static_cast<unsigned int>(number_)](unsigned int i) { return first + i; });
    PushBlock(*stripes_, [](unsigned int i) { return i % 2 == 0 ? 0x55U : 0xAAU; });
    ++number_;
    timestamp_ = timestamp_ + interval_;
    return true;
}

int PatternSource::ReadSetting(const IPluginConfiguration& config, const char* key, int defaultValue,
                               int least) const {
    const int value = config.GetIntOrDefault(key, defaultValue);
    if (value < least) {
        ErrorInSetting(key, std::string(key) + " must be at least " + std::to_string(least) + ", not " +
                                std::to_string(value));
    }
    return value;
}

template <typename ByteAt>
void PatternSource::PushBlock(Source& output, ByteAt byteAt) const {
    auto block = std::make_unique<Buffer>(allocator_->Allocate(blockBytes_), output.GetFormat());
    unsigned char* const bytes = block->GetDataForWrite();
    for (unsigned int i = 0; i != blockBytes_; ++i) {
        bytes[i] = static_cast<unsigned char>(byteAt(i));
    }
    block->GetMetadata().SetValue("Number", number_);
    block->SetTimestamp(timestamp_);
    output.PushBuffer(block.release());
}

} // namespace patterns
