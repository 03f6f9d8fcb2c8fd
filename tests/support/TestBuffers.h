#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>

#include "calvane/buffer/Buffer.h"
#include "calvane/buffer/IBufferData.h"

/// Memory that counts how many of its kind exist.
class CountedMemory : public quarn::calvane::IBufferData {
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

inline quarn::calvane::Buffer* MakeBuffer(const std::string& text) {
    return new quarn::calvane::Buffer(new CountedMemory(text));
}

inline std::string TextOf(const quarn::calvane::Buffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetData()), buffer.GetLength()};
}

/// Fails the test in which it stands when memory made during its life is still there at its end.
class ExpectNoBuffersLeft {
public:
    ~ExpectNoBuffersLeft() { EXPECT_EQ(before_, CountedMemory::alive.load()); }

private:
    const int before_ = CountedMemory::alive.load();
};
