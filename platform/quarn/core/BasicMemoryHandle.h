#pragma once

#include "quarn/Export.h"
#include "quarn/core/IMemoryHandle.h"

namespace quarn::core {

/// Describes memory that somebody else keeps: a CPU pointer, a physical address and a length that do not
/// change.
///
/// Ownership: none. Whoever derives from it and owns memory releases it in the destructor.
class QUARN_API BasicMemoryHandle : public IMemoryHandle {
public:
    /// Addressable memory without a physical address.
    ///
    /// With two arguments the type of the first decides: a pointer or nullptr comes here, an unsigned value
    /// (0u too) goes to the physical address, and a plain 0 is ambiguous and does not compile.
    BasicMemoryHandle(unsigned char* ptr, unsigned int length);
    /// Addressable memory with a physical address.
    BasicMemoryHandle(unsigned char* ptr, unsigned int physAddr, unsigned int length);
    /// Physical memory without a CPU pointer.
    BasicMemoryHandle(unsigned int physAddr, unsigned int length);
    ~BasicMemoryHandle() override;

    bool IsAddressable() const override;
    const unsigned char* GetPtr() const override;
    unsigned char* GetWritablePtr() override;
    bool IsContiguous() const override;
    unsigned int GetPhysAddr() const override;
    unsigned int GetWritablePhysAddr() override;
    unsigned int GetLength() const override;
    /// Always false: the memory is not ours to move.
    bool Realloc(unsigned int length) override;
    /// Nothing to end: the CPU writes in place.
    void ReleaseWritablePtr() override;
    /// Does something only for memory that has both a CPU pointer and a physical address, since no device
    /// reads any other; see osa::ContigMemAlloc::CleanCpuCache.
    void CleanCpuCache() const override;

private:
    unsigned char* const ptr_;
    const unsigned int physAddr_;
    const unsigned int length_;
};

} // namespace quarn::core
