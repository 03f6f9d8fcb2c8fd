#pragma once

#include "quarn/Export.h"
#include "quarn/core/AllocatorProps.h"
#include "quarn/core/IMemoryHandle.h"

namespace quarn::core {

/// A source of memory blocks.
///
/// Threads:  any.
/// Lifetime: a handle stays valid after its allocator is gone.
/// ABI:      the order of the virtual operations is fixed.
class QUARN_API IMemoryAllocator {
public:
    IMemoryAllocator() = default;
    virtual ~IMemoryAllocator() = default;
    IMemoryAllocator(const IMemoryAllocator&) = delete;
    IMemoryAllocator& operator=(const IMemoryAllocator&) = delete;

    /// A handle to `length` bytes that start on a cache line; their content is undefined. A length of 0 is
    /// allowed. The caller owns the handle. Throws osa::Exception with the length when there is no memory.
    virtual IMemoryHandle* Allocate(unsigned int length) = 0;
    virtual AllocatorProps GetProps() const = 0;
};

} // namespace quarn::core
