#pragma once

#include "quarn/Export.h"

namespace quarn::core {

/// A block of memory, as the CPU and as devices see it. Deleting the handle releases the memory.
///
/// Threads: one at a time. The handle may move from thread to thread.
/// ABI:     the order of the virtual operations is fixed.
class QUARN_API IMemoryHandle {
public:
    IMemoryHandle() = default;
    virtual ~IMemoryHandle() = default;
    IMemoryHandle(const IMemoryHandle&) = delete;
    IMemoryHandle& operator=(const IMemoryHandle&) = delete;

    /// Whether the CPU can reach the memory.
    virtual bool IsAddressable() const = 0;
    /// Start of the memory for reading, or null when it is not addressable.
    virtual const unsigned char* GetPtr() const = 0;
    /// Start of the memory for writing, or null when it is not addressable. Writing ends with
    /// ReleaseWritablePtr or with the handle.
    virtual unsigned char* GetWritablePtr() = 0;
    /// Whether the memory is one piece of physical memory with a known address.
    virtual bool IsContiguous() const = 0;
    /// Physical address of the start of the memory, 0 if none.
    virtual unsigned int GetPhysAddr() const = 0;
    /// Physical address for a device that writes, 0 if none.
    virtual unsigned int GetWritablePhysAddr() = 0;
    /// Size of the memory in bytes.
    virtual unsigned int GetLength() const = 0;
    /// Changes the size to `length` bytes and keeps the content up to the smaller size; pointers and
    /// addresses taken before are void then. Returns false, and changes nothing, when this memory cannot
    /// change its size.
    virtual bool Realloc(unsigned int length) = 0;
    /// Ends a period of writing by the CPU.
    virtual void ReleaseWritablePtr() = 0;
    /// Writes what the CPU's caches hold of the memory back to it, for a device to read.
    virtual void CleanCpuCache() const = 0;
};

} // namespace quarn::core
