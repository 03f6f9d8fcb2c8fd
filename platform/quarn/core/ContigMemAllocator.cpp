#include "quarn/core/ContigMemAllocator.h"

#include <utility>

#include "quarn/core/BasicMemoryHandle.h"

namespace quarn::core {

namespace {

class ContigBlock {
public:
    ContigBlock(std::shared_ptr<osa::ContigMemAlloc> memory, unsigned int length)
        : memory_(std::move(memory)), block_(memory_->Allocate(length)) {}
    ~ContigBlock() { memory_->Free(block_); }
    ContigBlock(const ContigBlock&) = delete;
    ContigBlock& operator=(const ContigBlock&) = delete;

protected:
    const osa::ContigMemAlloc::Block& GetBlock() const { return block_; }

private:
    const std::shared_ptr<osa::ContigMemAlloc> memory_;
    const osa::ContigMemAlloc::Block block_;
};

// The block is a base so that it is there before the handle that describes it.
class ContigHandle final : private ContigBlock, public BasicMemoryHandle {
public:
    ContigHandle(std::shared_ptr<osa::ContigMemAlloc> memory, unsigned int length)
        : ContigBlock(std::move(memory), length),
          BasicMemoryHandle(GetBlock().ptr, GetBlock().physAddr, length) {}
};

} // namespace

ContigMemAllocator::ContigMemAllocator() : ContigMemAllocator(std::make_shared<osa::ContigMemAlloc>()) {}

ContigMemAllocator::ContigMemAllocator(std::shared_ptr<osa::ContigMemAlloc> memory)
    : memory_(std::move(memory)) {}

ContigMemAllocator::~ContigMemAllocator() = default;

IMemoryHandle* ContigMemAllocator::Allocate(unsigned int length) {
    return std::make_unique<ContigHandle>(memory_, length).release();
}

AllocatorProps ContigMemAllocator::GetProps() const {
    return AllocatorProps(AllocatorProps::kContiguous | AllocatorProps::kCached |
                          AllocatorProps::kAddressable);
}

} // namespace quarn::core
