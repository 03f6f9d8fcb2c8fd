#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "quarn/core/BasicMemoryHandle.h"
#include "quarn/core/BufferPoolAllocator.h"
#include "quarn/core/StandardHeapAllocator.h"
#include "quarn/osa/Exception.h"

namespace quarn::core {
namespace {

using Handle = std::unique_ptr<IMemoryHandle>;

template <typename Action>
std::string TextOf(Action action) {
    try {
        action();
    } catch (const osa::Exception& failure) {
        return failure.what();
    }
    return "no exception";
}

// A slab with a physical address that tells when it is given back.
class SlabSource : public IMemoryAllocator {
public:
    SlabSource(bool& alive, bool addressable) : alive_(alive), addressable_(addressable) {}

    IMemoryHandle* Allocate(unsigned int length) override {
        alive_ = true;
        EXPECT_LE(length, kMaximum);
        return new Slab(alive_, addressable_, length);
    }
    AllocatorProps GetProps() const override { return AllocatorProps(AllocatorProps::kContiguous); }

    static constexpr unsigned int kPhysAddr = 0x20000000;

private:
    static constexpr unsigned int kMaximum = 512;

    class Slab : public BasicMemoryHandle {
    public:
        Slab(bool& alive, bool addressable, unsigned int length)
            : BasicMemoryHandle(addressable ? bytes_ : nullptr, kPhysAddr, length), alive_(alive) {}
        ~Slab() override { alive_ = false; }

    private:
        bool& alive_;
        unsigned char bytes_[kMaximum];
    };

    bool& alive_;
    const bool addressable_;
};

TEST(StandardHeapAllocator, AlignsToCacheLinesAtLeast) {
    for (const unsigned int alignment : {0U, 1U, 64U, 4096U}) {
        Handle handle;
        {
            StandardHeapAllocator heap(alignment);
            handle.reset(heap.Allocate(100));
        }
        const auto address = reinterpret_cast<uintptr_t>(handle->GetPtr());
        EXPECT_EQ(address % (alignment > 64 ? alignment : 64), 0U) << alignment;
        std::memset(handle->GetWritablePtr(), 1, 100); // The allocator is gone, the memory is not.
        EXPECT_EQ(handle->GetLength(), 100U);
    }
    StandardHeapAllocator heap(0);
    EXPECT_TRUE(heap.GetProps().Supports(4) && heap.GetProps().Supports(6));
    EXPECT_FALSE(heap.GetProps().Supports(1) || heap.GetProps().Supports(5)) << "all the bits are asked for";
    const Handle empty(heap.Allocate(0));
    EXPECT_NE(empty->GetPtr(), nullptr);
    EXPECT_EQ(empty->GetLength(), 0U);
    EXPECT_EQ(TextOf([] { StandardHeapAllocator(48U); }), "An alignment of 48 bytes is not a power of two");
}

TEST(BufferPoolAllocator, CutsTheSlabIntoSeparateBlocks) {
    bool slabAlive = false;
    SlabSource parent(slabAlive, true);
    BufferPoolAllocator pool(&parent, 65, 3, false);
    EXPECT_EQ(pool.GetProps().GetBits(), AllocatorProps::kContiguous);
    std::vector<Handle> blocks;
    for (unsigned int number = 0; number < 3; ++number) {
        blocks.emplace_back(pool.Allocate(number * 30));
        EXPECT_EQ(blocks[number]->GetLength(), number * 30);
        EXPECT_EQ(blocks[number]->GetPhysAddr(), SlabSource::kPhysAddr + number * 128);
        EXPECT_EQ(blocks[number]->GetPtr(), blocks[0]->GetPtr() + number * 128);
    }
    SlabSource deviceMemory(slabAlive, false);
    BufferPoolAllocator devicePool(&deviceMemory, 64, 2, false);
    const Handle first(devicePool.Allocate(1));
    const Handle second(devicePool.Allocate(1));
    EXPECT_FALSE(second->IsAddressable());
    EXPECT_EQ(second->GetPhysAddr(), SlabSource::kPhysAddr + 64);
}

TEST(BufferPoolAllocator, RefusesWhatItCannotGive) {
    StandardHeapAllocator heap(0);
    BufferPoolAllocator pool(&heap, 100, 1, false);
    EXPECT_EQ(TextOf([&] { pool.Allocate(101); }),
              "Cannot allocate 101 bytes from a pool of blocks of 100 bytes");
    const Handle only(pool.Allocate(100));
    EXPECT_EQ(TextOf([&] { pool.Allocate(7); }),
              "Cannot allocate 7 bytes: all 1 blocks of the pool are in use");

    const auto build = [&heap](unsigned int size, unsigned int count) {
        return TextOf([&] { BufferPoolAllocator(&heap, size, count, true); });
    };
    EXPECT_EQ(build(0, 5), "A pool needs blocks: 5 blocks of 0 bytes were asked for");
    EXPECT_EQ(build(5, 0), "A pool needs blocks: 0 blocks of 5 bytes were asked for");
    const std::string tooLarge = "A pool must be smaller than 4 GiB: ";
    EXPECT_EQ(build(64, 1U << 26), tooLarge + "67108864 blocks of 64 bytes were asked for");
    EXPECT_EQ(build(UINT_MAX, 1), tooLarge + "1 blocks of 4294967295 bytes were asked for");
}

TEST(BufferPoolAllocator, WaitsUntilAnotherThreadGivesABlockBack) {
    StandardHeapAllocator heap(0);
    BufferPoolAllocator pool(&heap, 16, 1, true);
    Handle taken(pool.Allocate(16));
    const unsigned char* const place = taken->GetPtr();
    std::atomic<bool> given{false};
    std::thread consumer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        given = true;
        taken.reset();
    });
    const Handle next(pool.Allocate(8));
    EXPECT_TRUE(given);
    EXPECT_EQ(next->GetPtr(), place);
    consumer.join();
}

TEST(BufferPoolAllocator, BlocksOutliveThePoolAndItsParent) {
    bool slabAlive = false;
    Handle first;
    Handle second;
    {
        SlabSource parent(slabAlive, true);
        BufferPoolAllocator pool(&parent, 16, 3, true);
        first.reset(pool.Allocate(16));
        second.reset(pool.Allocate(16));
    }
    std::memset(first->GetWritablePtr(), 1, 16);
    first.reset();
    EXPECT_TRUE(slabAlive);
    second.reset();
    EXPECT_FALSE(slabAlive);
}

TEST(BufferPoolAllocator, NeverGivesOneBlockToTwoThreads) {
    constexpr unsigned int kRounds = 20000;
    StandardHeapAllocator heap(0);
    BufferPoolAllocator pool(&heap, sizeof(unsigned int), 3, true);
    std::atomic<unsigned int> clashes{0};
    const auto work = [&](unsigned int self) {
        for (unsigned int round = 0; round < kRounds; ++round) {
            const Handle block(pool.Allocate(sizeof self));
            std::memcpy(block->GetWritablePtr(), &self, sizeof self);
            std::this_thread::yield();
            clashes += std::memcmp(block->GetPtr(), &self, sizeof self) != 0 ? 1 : 0;
        }
    };
    std::vector<std::thread> threads;
    for (unsigned int self = 0; self < 4; ++self) {
        threads.emplace_back(work, self);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(clashes, 0U);
}

} // namespace
} // namespace quarn::core
