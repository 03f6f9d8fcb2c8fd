#include "calvane/buffer/Buffer.h"

#include <cstdint>
#include <utility>

#include "calvane/buffer/AddressChecks.h"
#include "calvane/buffer/internal/Recycler.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/InterlockedObj.h"

namespace quarn::calvane {

namespace {

const char* const kNoPointer = "Could not get a pointer to this buffer";
const char* const kBeyondView = "Tried to create a SubBuffer that extends beyond the current buffer";

// A sum with a null pointer is not defined in C++, but a view behind the start of unaddressable memory is
// asked for its address all the same.
template <typename T>
T* Advance(T* start, unsigned int offset) {
    return reinterpret_cast<T*>(reinterpret_cast<uintptr_t>(start) + offset);
}

} // namespace

/// One view on a memory. The first view of a memory also holds what all its views share: the handle and the
/// number of views. So it stays, emptied, until the last of them is gone.
class Buffer::BufferImpl final {
public:
    BufferImpl(std::unique_ptr<core::IMemoryHandle> memory, const BufferFormat* initialFormat)
        : first_(this),
          handle_(std::move(memory)),
          length(handle_->GetLength()),
          format(initialFormat != nullptr ? *initialFormat : BufferFormat()) {}
    BufferImpl(const BufferImpl& other)
        : first_(other.first_),
          offset(other.offset),
          length(other.length),
          timestamp(other.timestamp),
          format(other.format),
          metadata(other.metadata) {
        first_->lock_.Increment(first_->viewCount_); // Last, since nothing may throw behind it.
    }
    BufferImpl& operator=(const BufferImpl&) = delete;
    ~BufferImpl() { handle_.reset(); } // Before what the view says of it.

    static void* operator new(std::size_t bytes) { return TakeRecycled(Recycled::View, bytes); }
    static void operator delete(void* place) noexcept { GiveRecycled(Recycled::View, place); }

    /// The first view of a memory. Owns `handle` before it takes memory for itself, which may be what fails.
    static BufferImpl* Make(core::IMemoryHandle* handle, const BufferFormat* initialFormat) {
        std::unique_ptr<core::IMemoryHandle> memory(handle);
        if (!memory) {
            throw osa::Exception("A buffer cannot be made without a memory handle");
        }
        return new BufferImpl(std::move(memory), initialFormat);
    }
    /// Instead of deletion.
    static void Release(BufferImpl* view) noexcept {
        BufferImpl* const first = view->first_;
        if (view == first && !first->IsOnlyView()) {
            BufferFormat().swap(view->format);
            BufferMetadata().swap(view->metadata);
        }
        // Where there is one view only, nobody else can make another.
        if (first->IsOnlyView() || first->lock_.Decrement(first->viewCount_) == 0) {
            delete first;
        }
        if (view != first) {
            delete view;
        }
    }

    core::IMemoryHandle& Handle() const { return *first_->handle_; }
    bool IsOnlyView() const { return first_->lock_.Read(first_->viewCount_) == 1; }

private:
    BufferImpl* const first_;
    std::unique_ptr<core::IMemoryHandle> handle_; // Of the first view only, and so the next two.
    int viewCount_ = 1;
    osa::InterlockedObj lock_;

public:
    unsigned int offset = 0;
    unsigned int length;
    osa::TimeStruct timestamp;
    BufferFormat format;
    BufferMetadata metadata;
};

void Buffer::ReleaseImpl::operator()(BufferImpl* impl) const noexcept {
    BufferImpl::Release(impl);
}

Buffer::Buffer(core::IMemoryHandle* handle) : impl_(BufferImpl::Make(handle, nullptr)) {}

Buffer::Buffer(core::IMemoryHandle* handle, const BufferFormat& format)
    : impl_(BufferImpl::Make(handle, &format)) {}

Buffer::Buffer(const Buffer& other) : impl_(new BufferImpl(*other.impl_)) {}

Buffer::Buffer(BufferImpl* impl) : impl_(impl) {}

Buffer::~Buffer() = default;

void* Buffer::operator new(std::size_t bytes) {
    return bytes == sizeof(Buffer) ? TakeRecycled(Recycled::Buffer, bytes) : ::operator new(bytes);
}

void Buffer::operator delete(void* place, std::size_t bytes) noexcept {
    if (bytes == sizeof(Buffer)) {
        GiveRecycled(Recycled::Buffer, place);
    } else {
        ::operator delete(place);
    }
}

Buffer* Buffer::Duplicate() const {
    return new Buffer(*this);
}

Buffer* Buffer::CreateSubBuffer(unsigned int offset, unsigned int length) const {
    if (offset > impl_->length || length > impl_->length - offset) {
        throw osa::Exception(kBeyondView);
    }
    ImplPtr view(new BufferImpl(*impl_));
    view->offset += offset;
    view->length = length;
    auto* buffer = new Buffer(view.get());
    (void)view.release(); // The buffer's own now.
    return buffer;
}

Buffer* Buffer::CreateSubBuffer(unsigned int offset) const {
    if (offset > impl_->length) {
        throw osa::Exception(kBeyondView);
    }
    return CreateSubBuffer(offset, impl_->length - offset);
}

unsigned int Buffer::GetLength() const {
    return impl_->length;
}

void Buffer::Resize(unsigned int length) {
    if (length > impl_->Handle().GetLength()) {
        throw osa::Exception("Tried to increase the size of an allocated buffer");
    }
    impl_->length = length;
}

const unsigned char* Buffer::GetData() const {
    return CheckNull(Advance(std::as_const(impl_->Handle()).GetPtr(), impl_->offset), kNoPointer);
}

unsigned char* Buffer::GetDataForWrite() {
    AssertWritable();
    return CheckNull(Advance(impl_->Handle().GetWritablePtr(), impl_->offset), kNoPointer);
}

unsigned int Buffer::GetPhysAddrForRead() const {
    return CheckPhysAddr(impl_->Handle().GetPhysAddr() + impl_->offset);
}

unsigned int Buffer::GetPhysAddrForWrite() {
    AssertWritable();
    return CheckPhysAddr(impl_->Handle().GetWritablePhysAddr() + impl_->offset);
}

bool Buffer::IsWritable() const {
    return impl_->IsOnlyView();
}

bool Buffer::IsAddressable() const {
    return impl_->Handle().IsAddressable();
}

bool Buffer::IsContiguous() const {
    return impl_->Handle().IsContiguous();
}

void Buffer::ReleaseWritablePtr() {
    impl_->Handle().ReleaseWritablePtr();
}

void Buffer::CleanCpuCache() {
    impl_->Handle().CleanCpuCache();
}

BufferFormat& Buffer::GetFormat() {
    return impl_->format;
}

const BufferFormat& Buffer::GetFormat() const {
    return impl_->format;
}

BufferMetadata& Buffer::GetMetadata() {
    return impl_->metadata;
}

const BufferMetadata& Buffer::GetMetadata() const {
    return impl_->metadata;
}

const osa::TimeStruct& Buffer::GetTimestamp() const {
    return impl_->timestamp;
}

void Buffer::SetTimestamp(const osa::TimeStruct& timestamp) {
    impl_->timestamp = timestamp;
}

void Buffer::AssertWritable() const {
    if (!IsWritable()) {
        throw osa::Exception("Tried to write to a read-only buffer!");
    }
}

} // namespace quarn::calvane
