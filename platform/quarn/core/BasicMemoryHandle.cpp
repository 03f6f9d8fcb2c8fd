#include "quarn/core/BasicMemoryHandle.h"

#include "quarn/memory/ContigMemAlloc.h"

namespace quarn::core {

BasicMemoryHandle::BasicMemoryHandle(unsigned char* ptr, unsigned int length)
    : BasicMemoryHandle(ptr, 0U, length) {}

BasicMemoryHandle::BasicMemoryHandle(unsigned char* ptr, unsigned int physAddr, unsigned int length)
    : ptr_(ptr), physAddr_(physAddr), length_(length) {}

BasicMemoryHandle::BasicMemoryHandle(unsigned int physAddr, unsigned int length)
    : BasicMemoryHandle(nullptr, physAddr, length) {}

BasicMemoryHandle::~BasicMemoryHandle() = default;

bool BasicMemoryHandle::IsAddressable() const {
    return ptr_ != nullptr;
}

const unsigned char* BasicMemoryHandle::GetPtr() const {
    return ptr_;
}

unsigned char* BasicMemoryHandle::GetWritablePtr() {
    return ptr_;
}

bool BasicMemoryHandle::IsContiguous() const {
    return physAddr_ != 0;
}

unsigned int BasicMemoryHandle::GetPhysAddr() const {
    return physAddr_;
}

unsigned int BasicMemoryHandle::GetWritablePhysAddr() {
    return physAddr_;
}

unsigned int BasicMemoryHandle::GetLength() const {
    return length_;
}

bool BasicMemoryHandle::Realloc(unsigned int) {
    return false;
}

void BasicMemoryHandle::ReleaseWritablePtr() {}

void BasicMemoryHandle::CleanCpuCache() const {
    if (IsAddressable() && IsContiguous()) {
        osa::ContigMemAlloc::CleanCpuCache(ptr_, length_);
    }
}

} // namespace quarn::core
