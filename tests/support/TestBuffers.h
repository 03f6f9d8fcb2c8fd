#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "calvane/buffer/Buffer.h"
#include "calvane/buffer/IBufferData.h"

/// Memory that counts how many of its kind exist.
class CountedMemory : public quarn::calvane::IBufferData {
public:
    explicit CountedMemory(unsigned int length) : CountedMemory(std::vector<unsigned char>(length)) {}
    explicit CountedMemory(std::vector<unsigned char> bytes)
        : IBufferData(AddressOf(bytes), static_cast<unsigned int>(bytes.size())), bytes_(std::move(bytes)) {
        ++alive;
    }
    ~CountedMemory() override { --alive; }

    static inline std::atomic<int> alive{0};

private:
    static unsigned char* AddressOf(std::vector<unsigned char>& bytes) {
        bytes.reserve(1); // No bytes have an address too.
        return bytes.data();
    }

    const std::vector<unsigned char> bytes_; // Moving a vector keeps its bytes where they are.
};

inline quarn::calvane::Buffer* MakeBuffer(const std::string& text) {
    return new quarn::calvane::Buffer(
        new CountedMemory(std::vector<unsigned char>(text.begin(), text.end())));
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
