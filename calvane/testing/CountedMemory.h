#pragma once

#include <atomic>
#include <cstring>
#include <string>

#include "calvane/buffer/Buffer.h"
#include "calvane/buffer/IBufferData.h"

namespace quarn::calvane::testkit {

/// Memory that holds a text and counts how many of its kind exist, so that a test sees a plugin that forgets
/// to delete a buffer.
///
/// Threads: as any memory handle; `alive` may be read from any.
class CountedMemory : public IBufferData {
public:
    explicit CountedMemory(const std::string& text)
        : IBufferData(new unsigned char[text.size() + 1], static_cast<unsigned int>(text.size())) {
        std::memcpy(GetWritablePtr(), text.data(), text.size());
        ++alive;
    }
    ~CountedMemory() override {
        delete[] GetPtr();
        --alive;
    }

    static inline std::atomic<int> alive{0};
};

/// A buffer that holds `bytes`, for the caller to give a format, metadata and a timestamp, and to push. The
/// caller owns it.
inline Buffer* MakeBuffer(const std::string& bytes) {
    return new Buffer(new CountedMemory(bytes));
}

/// The bytes that the buffer views.
inline std::string TextOf(const Buffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetData()), buffer.GetLength()};
}

} // namespace quarn::calvane::testkit
