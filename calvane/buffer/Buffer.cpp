#include "calvane/buffer/Buffer.h"

#include <cstdint>
#include <utility>

#include "calvane/buffer/AddressChecks.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/InterlockedObj.h"

namespace quarn::calvane {

namespace {

const char* const kNoPointer = "Could not get a pointer to this buffer";
const char* const kBeyondView = "Tried to create a SubBuffer that extends beyond the current buffer";

/// The memory and the number of buffers that look at it.
class BufferShared {
public:
    explicit BufferShared(std::unique_ptr<core::IMemoryHandle> memory) : handle(std::move(memory)) {}

    BufferShared* AddUser() {
        lock.Increment(refCount);
        return this;
    }
    void RemoveUser() {
        if (lock.Decrement(refCount) == 0) {
            delete this;
        }
    }
    bool HasOneUser() const { return lock.Read(refCount) == 1; }

    const std::unique_ptr<core::IMemoryHandle> handle;

private:
    int refCount = 1;
    osa::InterlockedObj lock;
};

std::unique_ptr<core::IMemoryHandle> CheckHandle(std::unique_ptr<core::IMemoryHandle> handle) {
    if (!handle) {
        throw osa::Exception("A buffer cannot be made without a memory handle");
    }
    return handle;
}

// A sum with a null pointer is not defined in C++, but a view behind the start of unaddressable memory is
// asked for its address all the same.
template <typename T>
T* Advance(T* start, unsigned int offset) {
    return reinterpret_cast<T*>(reinterpret_cast<uintptr_t>(start) + offset);
}

} // namespace

class Buffer::BufferImpl {
public:
    BufferImpl(std::unique_ptr<core::IMemoryHandle> handle, const BufferFormat* initialFormat)
        : length(handle->GetLength()), format(initialFormat != nullptr ? *initialFormat : BufferFormat()) {
        shared = new BufferShared(std::move(handle));
    }
    BufferImpl(const BufferImpl& other)
        : offset(other.offset),
          length(other.length),
          format(other.format),
          metadata(other.metadata),
          timestamp(other.timestamp) {
        shared = other.shared->AddUser(); // Last, since nothing may throw behind it.
    }
    BufferImpl& operator=(const BufferImpl&) = delete;
    ~BufferImpl() { shared->RemoveUser(); }

    core::IMemoryHandle& Handle() const { return *shared->handle; }

    BufferShared* shared = nullptr;
    unsigned int offset = 0;
    unsigned int length = 0;
    BufferFormat format;
    BufferMetadata metadata;
    osa::TimeStruct timestamp;
};

Buffer::Buffer(core::IMemoryHandle* handle)
    : impl_(new BufferImpl(CheckHandle(std::unique_ptr<core::IMemoryHandle>(handle)), nullptr)) {}

Buffer::Buffer(core::IMemoryHandle* handle, const BufferFormat& format)
    : impl_(new BufferImpl(CheckHandle(std::unique_ptr<core::IMemoryHandle>(handle)), &format)) {}

Buffer::Buffer(const Buffer& other) : impl_(new BufferImpl(*other.impl_)) {}

Buffer::Buffer(BufferImpl* impl) : impl_(impl) {}

Buffer::~Buffer() = default;

Buffer* Buffer::Duplicate() const {
    return new Buffer(*this);
}

Buffer* Buffer::CreateSubBuffer(unsigned int offset, unsigned int length) const {
    if (offset > impl_->length || length > impl_->length - offset) {
        throw osa::Exception(kBeyondView);
    }
    auto view = std::make_unique<BufferImpl>(*impl_);
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
    return impl_->shared->HasOneUser();
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
