#include <array>
#include <new>
#include <utility>

#include "calvane/buffer/internal/Recycler.h"
#include "quarn/osa/CacheLine.h"
#include "quarn/osa/Mutex.h"
#include "quarn/osa/MutexAutoLock.h"

#if defined(__SANITIZE_ADDRESS__)
#define CALVANE_HEAP_ONLY 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CALVANE_HEAP_ONLY 1
#endif
#endif

namespace quarn::calvane {

#ifdef CALVANE_HEAP_ONLY

void* TakeRecycled(Recycled, std::size_t bytes) {
    return ::operator new(bytes);
}

void GiveRecycled(Recycled, void* block) noexcept {
    ::operator delete(block);
}

#else

namespace {

constexpr unsigned int kKinds = 2;
constexpr unsigned int kBlocksInStack = 32;
constexpr unsigned int kStacksInStore = 32;
constexpr std::align_val_t kAlignment{osa::kCacheLineBytes};

struct FreeBlock {
    FreeBlock* next;      // In its stack.
    FreeBlock* nextStack; // Of the first block of a stack in the store.
};

struct Stack {
    FreeBlock* first;
    unsigned int count;
};

void Push(Stack& stack, void* place) noexcept {
    stack.first = ::new (place) FreeBlock{stack.first, nullptr};
    ++stack.count;
}

FreeBlock* Pop(Stack& stack) {
    FreeBlock* const block = stack.first;
    stack.first = block->next;
    --stack.count;
    // Another thread has used the next one, so its memory is far away: have it come near meanwhile.
    __builtin_prefetch(stack.first, 1);
    __builtin_prefetch(reinterpret_cast<unsigned char*>(stack.first) + osa::kCacheLineBytes, 1);
    return block;
}

void Delete(Stack stack) noexcept {
    while (stack.first != nullptr) {
        ::operator delete(Pop(stack), kAlignment);
    }
}

/// Full stacks of one kind, for all threads.
class Store {
public:
    Stack Take() {
        const osa::MutexAutoLock lock(lock_);
        if (first_ == nullptr) {
            return {nullptr, 0};
        }
        FreeBlock* const stack = first_;
        first_ = stack->nextStack;
        --count_;
        return {stack, kBlocksInStack};
    }
    void Put(Stack stack) {
        {
            const osa::MutexAutoLock lock(lock_);
            if (count_ != kStacksInStore) {
                stack.first->nextStack = first_;
                first_ = stack.first;
                ++count_;
                return;
            }
        }
        Delete(stack);
    }

private:
    osa::Mutex lock_{"BufferRecycler"};
    FreeBlock* first_ = nullptr;
    unsigned int count_ = 0;
};

// Never destroyed, since buffers may be deleted as late as that.
Store& StoreOf(unsigned int kind) {
    static auto* const stores = new std::array<Store, kKinds>();
    return (*stores)[kind];
}

/// What one thread keeps of one kind. Has neither constructor nor destructor, so that using it costs no
/// check.
struct Cache {
    Stack used;         // Blocks come from here and go here.
    Stack other;        // Empty or full.
    unsigned int limit; // Of `used`: 0 before the thread's first use and when the thread ends.
};

// The libraries are loaded with the program, or soon after, and so little of this kind of memory is always
// there; the other way of finding it costs a call for each buffer.
[[gnu::tls_model("initial-exec")]] thread_local std::array<Cache, kKinds> tCaches;
[[gnu::tls_model("initial-exec")]] thread_local bool tEnded;

/// Gives back what a thread keeps when it ends.
class ThreadEnd {
public:
    ThreadEnd() {
        for (Cache& cache : tCaches) {
            cache.limit = kBlocksInStack;
        }
    }
    ~ThreadEnd() {
        tEnded = true;
        for (Cache& cache : tCaches) {
            cache.limit = 0;
            Delete(cache.used);
            Delete(cache.other);
            cache.used = cache.other = {nullptr, 0};
        }
    }
    ThreadEnd(const ThreadEnd&) = delete;
    ThreadEnd& operator=(const ThreadEnd&) = delete;
    /// Makes the object of this thread if there is none yet.
    void Expect() {}
};
thread_local ThreadEnd tThreadEnd;

void* AllocateSlowPath(unsigned int kind, std::size_t bytes) {
    if (!tEnded) {
        tThreadEnd.Expect();
        Cache& cache = tCaches[kind];
        cache.used =
            cache.other.count != 0 ? std::exchange(cache.other, Stack{nullptr, 0}) : StoreOf(kind).Take();
        if (cache.used.count != 0) {
            return Pop(cache.used);
        }
    }
    return ::operator new(static_cast<std::size_t>(osa::RoundUpToCacheLine(bytes)), kAlignment);
}

void FreeSlowPath(unsigned int kind, void* block) noexcept {
    if (tEnded) {
        ::operator delete(block, kAlignment);
        return;
    }
    tThreadEnd.Expect();
    Cache& cache = tCaches[kind];
    if (cache.used.count == kBlocksInStack) {
        if (cache.other.count != 0) {
            StoreOf(kind).Put(cache.other);
        }
        cache.other = cache.used;
        cache.used = {nullptr, 0};
    }
    Push(cache.used, block);
}

} // namespace

void* TakeRecycled(Recycled kind, std::size_t bytes) {
    Cache& cache = tCaches[static_cast<unsigned int>(kind)];
    return cache.used.count != 0 ? Pop(cache.used) : AllocateSlowPath(static_cast<unsigned int>(kind), bytes);
}

void GiveRecycled(Recycled kind, void* block) noexcept {
    Cache& cache = tCaches[static_cast<unsigned int>(kind)];
    if (cache.used.count < cache.limit) {
        Push(cache.used, block);
    } else {
        FreeSlowPath(static_cast<unsigned int>(kind), block);
    }
}

#endif

} // namespace quarn::calvane
