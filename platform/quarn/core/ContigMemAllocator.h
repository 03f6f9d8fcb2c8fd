#pragma once

#include <memory>

#include "quarn/Export.h"
#include "quarn/core/IMemoryAllocator.h"
#include "quarn/memory/ContigMemAlloc.h"

namespace quarn::core {

/// Physically contiguous memory: cached, addressable, and with a physical address below 4 GiB.
///
/// Threads: any.
/// Errors:  osa::Exception with the length asked for and what to do; ask osa::ContigMemAlloc::IsSupported
/// first.
class QUARN_API ContigMemAllocator : public IMemoryAllocator {
public:
    ContigMemAllocator();
    /// Takes its memory from `memory`.
    explicit ContigMemAllocator(std::shared_ptr<osa::ContigMemAlloc> memory);
    ~ContigMemAllocator() override;

    IMemoryHandle* Allocate(unsigned int length) override;
    AllocatorProps GetProps() const override;

private:
    const std::shared_ptr<osa::ContigMemAlloc> memory_; // Every handle keeps it, too.
};

} // namespace quarn::core
