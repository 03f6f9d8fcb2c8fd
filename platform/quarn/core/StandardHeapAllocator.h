#pragma once

#include "quarn/Export.h"
#include "quarn/core/IMemoryAllocator.h"

namespace quarn::core {

/// Memory from the C library's heap: cached and addressable, without physical addresses.
///
/// Threads: any.
/// Errors:  osa::Exception for an alignment that is not a power of two, and when there is no memory.
class QUARN_API StandardHeapAllocator : public IMemoryAllocator {
public:
    /// Blocks start at a multiple of `alignment` bytes, a power of two. Less than a cache line is raised to a
    /// cache line; 0 means just that.
    explicit StandardHeapAllocator(unsigned int alignment);
    ~StandardHeapAllocator() override;

    /// The pointer is not null for a length of 0 either.
    IMemoryHandle* Allocate(unsigned int length) override;
    AllocatorProps GetProps() const override;

private:
    const unsigned int alignment_;
};

} // namespace quarn::core
