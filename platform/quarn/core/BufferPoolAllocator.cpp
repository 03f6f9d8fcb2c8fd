#include "quarn/core/BufferPoolAllocator.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "quarn/core/BasicMemoryHandle.h"
#include "quarn/osa/CacheLine.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/Semaphore.h"

namespace quarn::core {

/// The slab, a place for the handle of each block, and the list of the free blocks.
///
/// The free blocks are a stack of block numbers. Its top carries a count of changes, so that a thread that
/// was held up between reading the top and replacing it finds out when the same number has come back
/// meanwhile. The semaphore counts the free blocks; whoever has taken one from it finds a block on the stack.
///
/// Lifetime: a count of users, which are the allocator and every block that is out. The last one deletes it.
class BufferPoolAllocator::State {
public:
    State(std::unique_ptr<IMemoryHandle> slab, unsigned int stride, unsigned int blockCount);
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    /// Null when all blocks are out and `wait` is not set.
    IMemoryHandle* Take(unsigned int length, bool wait);
    void Leave();

    unsigned int GetBlockCount() const { return blockCount_; }

private:
    class BlockHandle;
    struct Slot;

    static constexpr uint32_t kNone = UINT32_MAX;
    static constexpr uint64_t kOneChange = uint64_t{1} << 32;

    ~State();
    void Push(uint32_t number);
    uint32_t Pop();
    void GiveBack(const Slot* slot);

    const std::unique_ptr<IMemoryHandle> slab_;
    unsigned char* const start_;
    const unsigned int physAddr_;
    const unsigned int stride_;
    const unsigned int blockCount_;
    const std::unique_ptr<Slot[]> slots_;

    osa::Semaphore freeBlocks_;
    std::atomic<uint64_t> top_{kNone}; // Low half: number of the top block; high half: changes.
    std::atomic<unsigned int> users_{1};
};

/// Lives in a slot. `delete` runs its destructor and then the operator below, which gives the slot back: not
/// earlier, because the next owner may build a new handle there at once.
class BufferPoolAllocator::State::BlockHandle final : public BasicMemoryHandle {
public:
    BlockHandle(const IMemoryHandle& slab, unsigned char* ptr, unsigned int physAddr, unsigned int length)
        : BasicMemoryHandle(ptr, physAddr, length), slab_(slab) {}

    static void operator delete(void* place);

    // The slab's own handle knows best how its memory is cleaned.
    void CleanCpuCache() const override { slab_.CleanCpuCache(); }

private:
    const IMemoryHandle& slab_;
};

struct alignas(osa::kCacheLineBytes) BufferPoolAllocator::State::Slot {
    alignas(BlockHandle) unsigned char place[sizeof(BlockHandle)]; // First: its address is the slot's.
    State* pool;
    std::atomic<uint32_t> next;
};

void BufferPoolAllocator::State::BlockHandle::operator delete(void* place) {
    const Slot* slot = static_cast<Slot*>(place);
    slot->pool->GiveBack(slot);
}

BufferPoolAllocator::State::State(std::unique_ptr<IMemoryHandle> slab, unsigned int stride,
                                  unsigned int blockCount)
    : slab_(std::move(slab)),
      start_(slab_->GetWritablePtr()),
      physAddr_(slab_->GetPhysAddr()),
      stride_(stride),
      blockCount_(blockCount),
      slots_(new Slot[blockCount]),
      freeBlocks_("BufferPool", blockCount, blockCount) {
    for (uint32_t number = blockCount; number-- > 0;) {
        slots_[number].pool = this;
        Push(number);
    }
}

BufferPoolAllocator::State::~State() = default;

void BufferPoolAllocator::State::Push(uint32_t number) {
    uint64_t top = top_.load(std::memory_order_relaxed);
    uint64_t changed = 0;
    do {
        slots_[number].next.store(static_cast<uint32_t>(top), std::memory_order_relaxed);
        changed = (top / kOneChange + 1) * kOneChange + number;
    } while (!top_.compare_exchange_weak(top, changed, std::memory_order_release, std::memory_order_relaxed));
}

uint32_t BufferPoolAllocator::State::Pop() {
    uint64_t top = top_.load(std::memory_order_acquire);
    uint64_t changed = 0;
    do {
        const uint32_t next = slots_[static_cast<uint32_t>(top)].next.load(std::memory_order_relaxed);
        changed = (top / kOneChange + 1) * kOneChange + next;
    } while (!top_.compare_exchange_weak(top, changed, std::memory_order_acquire, std::memory_order_acquire));
    return static_cast<uint32_t>(top);
}

IMemoryHandle* BufferPoolAllocator::State::Take(unsigned int length, bool wait) {
    if (!freeBlocks_.TryLock(wait ? osa::kNoTimeout : 0)) {
        return nullptr;
    }
    users_.fetch_add(1, std::memory_order_relaxed);
    const uint32_t number = Pop();
    const unsigned int offset = number * stride_;
    return ::new (slots_[number].place) BlockHandle(*slab_, start_ != nullptr ? start_ + offset : nullptr,
                                                    physAddr_ != 0 ? physAddr_ + offset : 0, length);
}

void BufferPoolAllocator::State::GiveBack(const Slot* slot) {
    Push(static_cast<uint32_t>(slot - slots_.get()));
    freeBlocks_.Release();
    Leave();
}

void BufferPoolAllocator::State::Leave() {
    if (users_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

namespace {

unsigned int CheckStride(unsigned int blockSize, unsigned int blockCount) {
    if (blockSize == 0 || blockCount == 0) {
        throw osa::Exception("A pool needs blocks: %u blocks of %u bytes were asked for", blockCount,
                             blockSize);
    }
    const unsigned long long stride = osa::RoundUpToCacheLine(blockSize);
    if (stride > UINT_MAX / blockCount) {
        throw osa::Exception("A pool must be smaller than 4 GiB: %u blocks of %u bytes were asked for",
                             blockCount, blockSize);
    }
    return static_cast<unsigned int>(stride);
}

} // namespace

BufferPoolAllocator::BufferPoolAllocator(IMemoryAllocator* parent, unsigned int blockSize,
                                         unsigned int blockCount, bool wait)
    : props_(parent->GetProps()), blockSize_(blockSize), wait_(wait), state_([&] {
          const unsigned int stride = CheckStride(blockSize, blockCount);
          std::unique_ptr<IMemoryHandle> slab(parent->Allocate(stride * blockCount));
          return new State(std::move(slab), stride, blockCount);
      }()) {}

BufferPoolAllocator::~BufferPoolAllocator() {
    state_->Leave();
}

IMemoryHandle* BufferPoolAllocator::Allocate(unsigned int length) {
    if (length > blockSize_) {
        throw osa::Exception("Cannot allocate %u bytes from a pool of blocks of %u bytes", length,
                             blockSize_);
    }
    IMemoryHandle* block = state_->Take(length, wait_);
    if (block == nullptr) {
        throw osa::Exception("Cannot allocate %u bytes: all %u blocks of the pool are in use", length,
                             state_->GetBlockCount());
    }
    return block;
}

AllocatorProps BufferPoolAllocator::GetProps() const {
    return props_;
}

} // namespace quarn::core
