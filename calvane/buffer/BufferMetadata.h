#pragma once

#include <memory>
#include <string>

#include "calvane/Export.h"
#include "calvane/buffer/IBufferMetadataItem.h"

namespace quarn::calvane {

/// Named values that producers attach to a buffer and later plugins read: integers, texts or objects.
///
/// Threads:   one at a time, reading included: GetString keeps the text that it makes.
/// Ownership: holds one reference of each object. Copies share reference-counted objects and clone others.
/// Errors:    an absent name never fails; it reads as 0, the empty text or null.
class CALVANE_API BufferMetadata {
public:
    BufferMetadata();
    BufferMetadata(const BufferMetadata& other);
    BufferMetadata& operator=(const BufferMetadata& other);
    virtual ~BufferMetadata();
    void swap(BufferMetadata& other) noexcept;

    bool Contains(const std::string& name) const;
    /// The integer; for a text the number that it starts with, or 0.
    int GetInt(const std::string& name) const;
    /// The text; for an integer its decimal form, for an object the empty text. The reference holds until the
    /// entry is set again.
    const std::string& GetString(const std::string& name) const;
    void GetString(const std::string& name, std::string& out) const;
    /// The object without a new reference, or null.
    IBufferMetadataItem* GetItem(const std::string& name) const;

    /// Each creates the entry or replaces it, whatever kind it was.
    void SetValue(const std::string& name, int value);
    void SetValue(const std::string& name, const std::string& value);
    void SetValue(const std::string& name, const char* value) { SetValue(name, std::string(value)); }
    /// Takes over the caller's reference to `item`, also when it throws.
    void SetValue(const std::string& name, IBufferMetadataItem* item);

private:
    class BufferMetadataImpl;
    BufferMetadataImpl& Writable();

    std::unique_ptr<BufferMetadataImpl> impl_; // Null while there are no entries.
};

inline void swap(BufferMetadata& a, BufferMetadata& b) noexcept {
    a.swap(b);
}

} // namespace quarn::calvane
