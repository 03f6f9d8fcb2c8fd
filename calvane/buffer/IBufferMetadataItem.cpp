#include "calvane/buffer/IBufferMetadataItem.h"

#include <cstdio>
#include <string>
#include <typeinfo>

#include "quarn/osa/Exception.h"

namespace quarn::calvane {

IBufferMetadataItem::IBufferMetadataItem(bool refCounted) : refCounted_(refCounted) {}

IBufferMetadataItem::IBufferMetadataItem(const IBufferMetadataItem& other) : refCounted_(other.refCounted_) {}

IBufferMetadataItem::~IBufferMetadataItem() {
    if (const int count = refLock_.Read(refCount_); refCounted_ && count > 1) {
        std::printf("Detroying IBufferMetadataItem early!!! Still %d references", count);
    }
}

IBufferMetadataItem* IBufferMetadataItem::doClone() {
    const char* typeName = typeid(this).name();
    throw osa::Exception(std::string("IBufferMetadataItem::doClone was not implemented in class ") +
                         (*typeName == '*' ? typeName + 1 : typeName) +
                         ". doClone must be implemented unless refCounted is true.");
}

IBufferMetadataItem* IBufferMetadataItem::Clone() {
    if (!refCounted_) {
        return doClone();
    }
    refLock_.Increment(refCount_);
    return this;
}

void IBufferMetadataItem::RemoveRef() {
    if (!refCounted_ || refLock_.Decrement(refCount_) == 0) {
        delete this;
    }
}

} // namespace quarn::calvane
