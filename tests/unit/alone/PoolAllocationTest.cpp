#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

#include "quarn/core/BufferPoolAllocator.h"
#include "quarn/core/StandardHeapAllocator.h"

namespace {

std::atomic<unsigned int> heapBlocks{0};

} // namespace

// Counts what this program takes from the C++ heap. Not inlined, because the compiler would
// take the pair of malloc and delete for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++heapBlocks;
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace quarn::core {
namespace {

using Handle = std::unique_ptr<IMemoryHandle>;

TEST(BufferPoolAllocator, GoesNeitherToTheHeapNorToTheParentForABlock) {
    StandardHeapAllocator heap(0);
    BufferPoolAllocator pool(&heap, 4096, 2, true);
    const unsigned int before = heapBlocks;
    const Handle fromTheHeap(heap.Allocate(1));
    ASSERT_GT(heapBlocks, before) << "the blocks of the library are not counted";
    const unsigned int counted = heapBlocks;
    for (int round = 0; round < 1000; ++round) {
        const Handle first(pool.Allocate(4096));
        const Handle second(pool.Allocate(1));
    }
    EXPECT_EQ(heapBlocks, counted);
}

} // namespace
} // namespace quarn::core
