#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>

#include "quarn/core/BasicMemoryHandle.h"
#include "quarn/core/BufferPoolAllocator.h"
#include "quarn/core/StandardHeapAllocator.h"
#include "support/RunInThreads.h"
#include "support/ThrownText.h"

namespace quarn::core {
namespace {

using Handle = std::unique_ptr<IMemoryHandle>;

// A slab with a physical address that tells when it is given back.
class SlabSource : public IMemoryAllocator {
public:
    explicit SlabSource(bool& alive) : alive_(alive) {}
    IMemoryHandle* Allocate(unsigned int length) override { return new Slab(alive_, length); }
    AllocatorProps GetProps() const override { return AllocatorProps(AllocatorProps::kContiguous); }

    static constexpr unsigned int kPhysAddr = 0x20000000;

private:
    class Slab : public BasicMemoryHandle {
    public:
        Slab(bool& alive, unsigned int length)
            : BasicMemoryHandle(new unsigned char[length], kPhysAddr, length), alive_(alive = true) {}
        ~Slab() override {
            alive_ = false;
            delete[] GetPtr();
        }

    private:
        bool& alive_;
    };

    bool& alive_;
};

TEST(StandardHeapAllocator, AlignsToCacheLinesAtLeast) {
    for (const unsigned int alignment : {0U, 1U, 4096U}) {
        const Handle handle(StandardHeapAllocator(alignment).Allocate(100));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(handle->GetPtr()) % std::max(alignment, 64U), 0U) << alignment;
        std::memset(handle->GetWritablePtr(), 1, 100); // The allocator is gone, the memory is not.
    }
    StandardHeapAllocator heap(0);
    EXPECT_TRUE(heap.GetProps().Supports(6));
    EXPECT_FALSE(heap.GetProps().Supports(5)) << "all the bits are asked for";
    EXPECT_NE(Handle(heap.Allocate(0))->GetPtr(), nullptr);
    EXPECT_EQ(ThrownText([] { StandardHeapAllocator(48U); }),
              "An alignment of 48 bytes is not a power of two");
}

TEST(BufferPoolAllocator, CutsTheSlabIntoSeparateBlocksThatOutliveIt) {
    bool slabAlive = false;
    std::vector<Handle> blocks;
    {
        SlabSource parent(slabAlive);
        BufferPoolAllocator pool(&parent, 65, 3, false);
        EXPECT_EQ(pool.GetProps().GetBits(), AllocatorProps::kContiguous);
        for (unsigned int number = 0; number < 3; ++number) {
            blocks.emplace_back(pool.Allocate(number * 30));
            EXPECT_EQ(blocks[number]->GetLength(), number * 30);
            EXPECT_EQ(blocks[number]->GetPhysAddr(), SlabSource::kPhysAddr + number * 128);
            EXPECT_EQ(blocks[number]->GetPtr(), blocks[0]->GetPtr() + number * 128);
        }
    }
    std::memset(blocks[2]->GetWritablePtr(), 1, 60);
    blocks.resize(1);
    EXPECT_TRUE(slabAlive);
    blocks.clear();
    EXPECT_FALSE(slabAlive);
}

TEST(BufferPoolAllocator, RefusesWhatItCannotGive) {
    StandardHeapAllocator heap(0);
    BufferPoolAllocator pool(&heap, 100, 1, false);
    EXPECT_EQ(ThrownText([&] { pool.Allocate(101); }),
              "Cannot allocate 101 bytes from a pool of blocks of 100 bytes");
    const Handle only(pool.Allocate(100));
    EXPECT_EQ(ThrownText([&] { pool.Allocate(7); }),
              "Cannot allocate 7 bytes: all 1 blocks of the pool are in use");
    EXPECT_EQ(ThrownText([&] { BufferPoolAllocator(&heap, 0, 5, true); }),
              "A pool needs blocks: 5 blocks of 0 bytes were asked for");
    EXPECT_EQ(ThrownText([&] { BufferPoolAllocator(&heap, 64, 1U << 26, true); }),
              "A pool must be smaller than 4 GiB: 67108864 blocks of 64 bytes were asked for");
}

// Four threads with three blocks: they wait for each other too.
TEST(BufferPoolAllocator, NeverGivesOneBlockToTwoThreads) {
    StandardHeapAllocator heap(0);
    BufferPoolAllocator pool(&heap, sizeof(int), 3, true);
    std::atomic<int> clashes{0};
    RunInThreads(4, [&](int self) {
        for (int round = 0; round != 4000; ++round) {
            const Handle block(pool.Allocate(sizeof self));
            std::memcpy(block->GetWritablePtr(), &self, sizeof self);
            std::this_thread::yield();
            clashes += std::memcmp(block->GetPtr(), &self, sizeof self) != 0 ? 1 : 0;
        }
    });
    EXPECT_EQ(clashes, 0);
}

// The last blocks come back on other threads at the very moment when the pool goes.
TEST(BufferPoolAllocator, GivesItsSlabBackOnceHoweverItGoes) {
    constexpr unsigned int kBlocks = 4;
    bool slabAlive = false;
    SlabSource parent(slabAlive);
    for (int round = 0; round != 500; ++round) {
        auto pool = std::make_unique<BufferPoolAllocator>(&parent, 64, kBlocks, true);
        std::vector<Handle> blocks;
        for (unsigned int block = 0; block != kBlocks; ++block) {
            blocks.emplace_back(pool->Allocate(64));
        }
        RunInThreads(3, [&](int self) {
            if (self == 0) {
                pool.reset();
            } else {
                blocks[static_cast<size_t>(self)].reset();
            }
        });
        EXPECT_TRUE(slabAlive);
        blocks.clear();
        ASSERT_FALSE(slabAlive);
    }
}

} // namespace
} // namespace quarn::core
