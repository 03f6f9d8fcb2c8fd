#pragma once

#include <memory>

#include "calvane/Export.h"

namespace quarn::calvane {

/// What the bytes of a buffer mean: a format code, plus named integer properties such as a width.
///
/// The framework gives neither code nor names a meaning; producers and consumers agree on them.
///
/// Threads:   one at a time.
/// Ownership: copies share nothing.
class CALVANE_API BufferFormat {
public:
    /// Code 0 and no properties.
    BufferFormat();
    BufferFormat(const BufferFormat& other);
    BufferFormat& operator=(const BufferFormat& other);
    virtual ~BufferFormat();
    void swap(BufferFormat& other) noexcept;

    unsigned int GetFormat() const;
    /// Replaces the code and keeps the properties.
    void SetFormat(unsigned int format);

    /// Adds the property, or overwrites the one of that name.
    void Set(const char* name, int value);
    /// Returns false and leaves `value` alone when there is no such property.
    bool Get(const char* name, int& value) const;
    /// Throws Exception "Missing format property " and the name when there is no such property.
    int GetInt(const char* name) const;

    /// Equal code and equal properties.
    bool operator==(const BufferFormat& other) const;
    bool operator!=(const BufferFormat& other) const { return !(*this == other); }
    /// Whether `other` has every property of this format with the same value. The codes are not compared, and
    /// `other` may have more: a receiver states only what it requires, so this is not symmetric.
    bool IsCompatibleWith(const BufferFormat& other) const { return FindMismatch(other) == nullptr; }
    /// The name of the first property, in ascending order, that `other` lacks or has with another value; null
    /// when they are compatible. Good for as long as this format is not changed.
    const char* FindMismatch(const BufferFormat& other) const;

private:
    class BufferFormatImpl;
    BufferFormatImpl& Writable();

    std::unique_ptr<BufferFormatImpl> impl_; // Null for code 0 without properties: most buffers have no more.
};

inline void swap(BufferFormat& a, BufferFormat& b) noexcept {
    a.swap(b);
}

} // namespace quarn::calvane
