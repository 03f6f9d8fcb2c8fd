#include "quarn/core/StandardHeapAllocator.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>

#include "quarn/core/BasicMemoryHandle.h"
#include "quarn/osa/CacheLine.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/FormatText.h"

namespace quarn::core {

namespace {

struct Releaser {
    void operator()(unsigned char* memory) const { std::free(memory); }
};
using HeapMemory = std::unique_ptr<unsigned char, Releaser>;

class HeapHandle final : public BasicMemoryHandle {
public:
    HeapHandle(HeapMemory memory, unsigned int length)
        : BasicMemoryHandle(memory.get(), length), memory_(std::move(memory)) {}

private:
    const HeapMemory memory_;
};

unsigned int CheckAlignment(unsigned int alignment) {
    if ((alignment & (alignment - 1)) != 0) {
        throw osa::Exception("An alignment of %u bytes is not a power of two", alignment);
    }
    return std::max(alignment, osa::kCacheLineBytes);
}

} // namespace

StandardHeapAllocator::StandardHeapAllocator(unsigned int alignment)
    : alignment_(CheckAlignment(alignment)) {}

StandardHeapAllocator::~StandardHeapAllocator() = default;

IMemoryHandle* StandardHeapAllocator::Allocate(unsigned int length) {
    void* memory = nullptr;
    // The heap may answer a size of 0 with a null pointer.
    if (const int code = posix_memalign(&memory, alignment_, std::max(length, 1U)); code != 0) {
        throw osa::Exception("Cannot allocate %u bytes on the heap: %s", length,
                             osa::ErrnoText(code).c_str());
    }
    return std::make_unique<HeapHandle>(HeapMemory(static_cast<unsigned char*>(memory)), length).release();
}

AllocatorProps StandardHeapAllocator::GetProps() const {
    return AllocatorProps(AllocatorProps::kAddressable | AllocatorProps::kCached);
}

} // namespace quarn::core
