#pragma once

#include <cstddef>
#include <memory>

#include "calvane/Export.h"
#include "calvane/buffer/BufferFormat.h"
#include "calvane/buffer/BufferMetadata.h"
#include "quarn/core/IMemoryHandle.h"
#include "quarn/osa/TimeStruct.h"

namespace quarn::calvane {

/// The unit that flows through a pipeline: a view (offset and length, in bytes) on a block of memory, with a
/// format, metadata and a timestamp of its own. Several buffers may look at the same memory.
///
/// Threads:   one buffer belongs to one thread at a time. Buffers that share memory may be on different
///            threads; only the count of sharers is protected, so bytes are written only while it is 1.
/// Ownership: the memory handle belongs to the buffers that share it and is deleted with the last of them. A
///            `Buffer*` passed to PushBuffer or OnBuffer belongs to the receiver from then on.
/// Errors:    Exception with the texts named below; a failed operation changes nothing.
class CALVANE_API Buffer {
public:
    /// Takes over `handle`, also when it throws. The view is the whole memory. In `new Buffer(handle)` memory
    /// for the Buffer may run out before the constructor is called: pass `owner.release()`, which is not
    /// evaluated then.
    explicit Buffer(core::IMemoryHandle* handle);
    Buffer(core::IMemoryHandle* handle, const BufferFormat& format);
    /// Shares the memory; copies view, format, metadata and timestamp.
    Buffer(const Buffer& other);
    Buffer& operator=(const Buffer&) = delete;
    virtual ~Buffer();

    /// Buffers come and go all the time, so their memory is kept for the next one. What derives from Buffer
    /// comes from the heap.
    static void* operator new(std::size_t bytes);
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* place, std::size_t bytes) noexcept;
    static void operator delete(void*, void*) noexcept {}

    /// A copy on the heap; the caller owns it.
    Buffer* Duplicate() const;
    /// A copy that views `length` bytes at `offset` of this view; the caller owns it. Throws "Tried to create
    /// a SubBuffer that extends beyond the current buffer".
    Buffer* CreateSubBuffer(unsigned int offset, unsigned int length) const;
    /// The same, up to the end of this view.
    Buffer* CreateSubBuffer(unsigned int offset) const;

    unsigned int GetLength() const;
    /// Sets the length of this buffer's view. The limit is the length of the whole memory, whatever the
    /// offset; throws "Tried to increase the size of an allocated buffer" above it.
    void Resize(unsigned int length);

    /// Throws "Could not get a pointer to this buffer" when the memory has no CPU address.
    const unsigned char* GetData() const;
    /// Throws "Tried to write to a read-only buffer!" while others share the memory.
    unsigned char* GetDataForWrite();
    /// Throws "Could not take the physical address of this buffer" when it has none.
    unsigned int GetPhysAddrForRead() const;
    unsigned int GetPhysAddrForWrite();

    /// Whether no other buffer shares the memory.
    bool IsWritable() const;
    bool IsAddressable() const;
    bool IsContiguous() const;
    /// Ends a period of writing by the CPU.
    void ReleaseWritablePtr();
    void CleanCpuCache();

    BufferFormat& GetFormat();
    const BufferFormat& GetFormat() const;
    BufferMetadata& GetMetadata();
    const BufferMetadata& GetMetadata() const;
    const osa::TimeStruct& GetTimestamp() const;
    void SetTimestamp(const osa::TimeStruct& timestamp);

private:
    class BufferImpl;
    explicit Buffer(BufferImpl* impl);
    void AssertWritable() const;

    struct ReleaseImpl {
        void operator()(BufferImpl* impl) const noexcept;
    };
    using ImplPtr = std::unique_ptr<BufferImpl, ReleaseImpl>;

    ImplPtr impl_;
};

} // namespace quarn::calvane
