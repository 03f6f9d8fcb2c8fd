#include "ByteMaskFilter.h"

#include <cstring>
#include <memory>
#include <string>

#include "calvane/config/IPluginConfiguration.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/IMemoryAllocator.h"

namespace patterns {

using namespace quarn::calvane;
using quarn::core::AllocatorProps;

ByteMaskFilter::ByteMaskFilter(CalvaneEnv* env, const IPluginConfiguration& config)
    : BasicFilterPlugin(config), allocator_(env->GetDefaultAllocator(AllocatorProps::kAddressable)) {
    GetSink()->SetFormatHandler(this);
    const int value = config.GetIntOrDefault("value", 255);
    const std::string operation = config.GetStringOrDefault("operation", "xor");
    if (value < 0 || value > 255) {
        ErrorInSetting("value", "value must be from 0 to 255, not " + std::to_string(value));
    }
    const auto byte = static_cast<unsigned char>(value);
    if (operation == "xor") {
        turn_ = byte;
    } else if (operation == "and") {
        keep_ = byte;
    } else if (operation == "or") {
        keep_ = static_cast<unsigned char>(~byte);
        turn_ = byte;
    } else {
        ErrorInSetting("operation", "operation must be and, or, or xor, not \"" + operation + "\"");
    }
}

void ByteMaskFilter::OnBuffer(const Sink*, Buffer* buffer) {
    std::unique_ptr<Buffer> owned(buffer);
    if (!owned->IsWritable()) {
        owned.reset(Copy(*owned));
    }
    unsigned char* const bytes = owned->GetDataForWrite();
    for (unsigned int i = 0; i != owned->GetLength(); ++i) {
        bytes[i] = static_cast<unsigned char>((bytes[i] & keep_) ^ turn_);
    }
    source->PushBuffer(owned.release());
}

void ByteMaskFilter::OnNewFormat(const Sink*, const BufferFormat& format) {
    source->SetFormat(format);
}

Buffer* ByteMaskFilter::Copy(const Buffer& buffer) const {
    auto copy = std::make_unique<Buffer>(allocator_->Allocate(buffer.GetLength()), buffer.GetFormat());
    std::memcpy(copy->GetDataForWrite(), buffer.GetData(), buffer.GetLength());
    copy->GetMetadata() = buffer.GetMetadata();
    copy->SetTimestamp(buffer.GetTimestamp());
    return copy.release();
}

} // namespace patterns
