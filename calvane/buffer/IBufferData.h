#pragma once

#include "calvane/Export.h"
#include "quarn/core/BasicMemoryHandle.h"

namespace quarn::calvane {

/// A memory handle for callers that own plain memory: derive from it and release the memory in the
/// destructor.
class CALVANE_API IBufferData : public core::BasicMemoryHandle {
public:
    /// Addressable memory without a physical address.
    IBufferData(unsigned char* ptr, unsigned int length);
    /// Addressable memory with a physical address.
    IBufferData(unsigned char* ptr, unsigned int physAddr, unsigned int length);
    /// Physical memory without a CPU pointer.
    IBufferData(unsigned int physAddr, unsigned int length);
    ~IBufferData() override = 0;
};

} // namespace quarn::calvane
