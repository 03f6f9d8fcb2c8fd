#include "AllocationCount.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> counting{false}; // Timed loops run without: an atomic addition per allocation shows.
std::atomic<uint64_t> allocations{0};

} // namespace

AllocationCount::AllocationCount() {
    allocations = 0;
    counting = true;
}

AllocationCount::~AllocationCount() {
    counting = false;
}

uint64_t AllocationCount::Get() const {
    return allocations;
}

void* operator new(std::size_t size) {
    if (counting.load(std::memory_order_relaxed)) {
        allocations.fetch_add(1, std::memory_order_relaxed);
    }
    void* const memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
