#pragma once

#include "calvane/Export.h"
#include "quarn/osa/InterlockedObj.h"

namespace quarn::calvane {

/// Base of an application's own values in a buffer's metadata.
///
/// Threads:   Clone and RemoveRef from any thread. What a reference-counted item holds is shared by buffers
///            on several threads and is the item's own business to protect.
/// Ownership: the creator holds one reference and hands it over to BufferMetadata::SetValue. Give a reference
///            back with RemoveRef, never with delete.
class CALVANE_API IBufferMetadataItem {
public:
    /// `refCounted`: copies of a buffer share this object. Otherwise each gets its own, made by doClone.
    explicit IBufferMetadataItem(bool refCounted);
    /// Copies the way of sharing only; the new object has one reference.
    IBufferMetadataItem(const IBufferMetadataItem& other);
    IBufferMetadataItem& operator=(const IBufferMetadataItem&) = delete;
    /// Says so on the standard output when references are left.
    virtual ~IBufferMetadataItem();
    /// A new object with the same value. Must be overridden by items that are not reference-counted: this one
    /// throws an Exception that says so.
    virtual IBufferMetadataItem* doClone();

    /// This object with one more reference, or a new one from doClone.
    IBufferMetadataItem* Clone();
    /// Gives one reference back; the object is deleted with the last one, or at once if it does not count.
    void RemoveRef();

private:
    const bool refCounted_;
    int refCount_ = 1;
    osa::InterlockedObj refLock_;
};

} // namespace quarn::calvane
