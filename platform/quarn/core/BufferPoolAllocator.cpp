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
#include "quarn/osa/Mutex.h"
#include "quarn/osa/MutexAutoLock.h"
#include "quarn/osa/internal/Futex.h"
#include "quarn/osa/internal/Spin.h"

namespace quarn::core {

namespace {

constexpr unsigned int kAttempts = 32;

} // namespace

/// The slab, a place for the handle of each block, and two lists of free blocks.
///
/// Whoever gives a block back puts it on one list; whoever takes one takes it from the other, and gets all
/// that has come back when that one is empty. So a thread that takes and one that gives back seldom touch the
/// same memory, and a list that only grows or is taken whole needs no protection against a block that comes
/// and goes between two looks at it.
///
/// Lifetime: a count of users, which are the allocator and every block. A block that is free when the
/// allocator
///           goes leaves with it, and each other one when it comes back. The last one deletes it all.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): lines of the cache are kept apart on purpose.
class BufferPoolAllocator::State {
public:
    State(std::unique_ptr<IMemoryHandle> slab, unsigned int stride, unsigned int blockCount);
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    /// Null when all blocks are out and `wait` is not set.
    IMemoryHandle* Take(unsigned int length, bool wait);
    /// The allocator goes.
    void Close();

    unsigned int GetBlockCount() const { return blockCount_; }

private:
    class BlockHandle;
    struct Slot;

    // The head of a list is the number of a block or one of these.
    static constexpr uint32_t kNone = UINT32_MAX;
    static constexpr uint32_t kAwaited = UINT32_MAX - 1; // None, and a thread sleeps until one comes.
    static constexpr uint32_t kClosed = UINT32_MAX - 2;

    ~State();
    bool TakeOverReturned();
    void WaitForReturned();
    unsigned int Length(uint32_t first) const;
    void GiveBack(Slot* slot);
    void Leave(unsigned int users);

    const std::unique_ptr<IMemoryHandle> slab_;
    unsigned char* const start_;
    const unsigned int physAddr_;
    const unsigned int stride_;
    const unsigned int blockCount_;
    const std::unique_ptr<Slot[]> slots_;

    // Inherits priority, so that no taker is kept by a less urgent one that was interrupted here.
    alignas(osa::kCacheLineBytes) osa::Mutex takers_{"BufferPool"};
    uint32_t available_; // The head of the list that blocks are taken from.

    alignas(osa::kCacheLineBytes) std::atomic<uint32_t> returned_{kNone}; // The head of the other one.
    alignas(osa::kCacheLineBytes) std::atomic<unsigned int> users_;
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
    uint32_t next; // In the list that the block is on.
};

void BufferPoolAllocator::State::BlockHandle::operator delete(void* place) {
    Slot* slot = static_cast<Slot*>(place);
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
      available_(0),
      users_(blockCount + 1) {
    for (uint32_t number = 0; number != blockCount; ++number) {
        slots_[number].pool = this;
        slots_[number].next = number + 1 != blockCount ? number + 1 : kNone;
    }
}

BufferPoolAllocator::State::~State() = default;

IMemoryHandle* BufferPoolAllocator::State::Take(unsigned int length, bool wait) {
    const osa::MutexAutoLock lock(takers_);
    if (available_ == kNone && !TakeOverReturned()) {
        if (!wait) {
            return nullptr;
        }
        WaitForReturned();
    }
    const uint32_t number = available_;
    available_ = slots_[number].next;
    if (available_ != kNone) {
        __builtin_prefetch(&slots_[available_], 1); // Far away, as another thread has given it back.
    }
    const unsigned int offset = number * stride_;
    return ::new (slots_[number].place) BlockHandle(*slab_, start_ != nullptr ? start_ + offset : nullptr,
                                                    physAddr_ != 0 ? physAddr_ + offset : 0, length);
}

bool BufferPoolAllocator::State::TakeOverReturned() {
    const uint32_t head = returned_.exchange(kNone, std::memory_order_acquire);
    available_ = head != kAwaited ? head : kNone;
    return available_ != kNone;
}

void BufferPoolAllocator::State::WaitForReturned() {
    const auto returned = [this] { return returned_.load(std::memory_order_relaxed) != kNone; };
    osa::SpinUntil(kAttempts, returned);
    while (!TakeOverReturned()) {
        uint32_t head = kNone;
        if (returned_.compare_exchange_strong(head, kAwaited, std::memory_order_relaxed)) {
            osa::FutexWait(returned_, kAwaited, nullptr);
        }
    }
}

void BufferPoolAllocator::State::GiveBack(Slot* slot) {
    const auto number = static_cast<uint32_t>(slot - slots_.get());
    uint32_t head = returned_.load(std::memory_order_relaxed);
    do {
        if (head == kClosed) {
            Leave(1);
            return;
        }
        slot->next = head != kAwaited ? head : kNone;
    } while (
        !returned_.compare_exchange_weak(head, number, std::memory_order_release, std::memory_order_relaxed));
    if (head == kAwaited) {
        osa::FutexWakeOne(returned_); // Its address only: all this may be gone by now.
    }
}

void BufferPoolAllocator::State::Close() {
    const uint32_t returned = returned_.exchange(kClosed, std::memory_order_acq_rel);
    Leave(Length(available_) + Length(returned) + 1);
}

unsigned int BufferPoolAllocator::State::Length(uint32_t first) const {
    unsigned int blocks = 0;
    for (uint32_t number = first; number < blockCount_; number = slots_[number].next) {
        ++blocks;
    }
    return blocks;
}

void BufferPoolAllocator::State::Leave(unsigned int users) {
    if (users_.fetch_sub(users, std::memory_order_acq_rel) == users) {
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
    state_->Close();
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
