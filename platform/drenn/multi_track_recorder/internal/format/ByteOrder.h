#pragma once

#include <endian.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace drenn::multi_track_recorder {

using Bytes = std::vector<unsigned char>;

/// Appends numbers, lowest byte first, whatever the machine.
class ByteWriter {
public:
    explicit ByteWriter(Bytes& bytes) : bytes_(bytes) {}

    void U8(std::uint8_t value) { bytes_.push_back(value); }
    void U32(std::uint32_t value) {
        value = htole32(value);
        Raw(&value, sizeof value);
    }
    void U64(std::uint64_t value) {
        value = htole64(value);
        Raw(&value, sizeof value);
    }
    void Raw(const void* bytes, std::size_t length) {
        const auto* const first = static_cast<const unsigned char*>(bytes);
        bytes_.insert(bytes_.end(), first, first + length);
    }
    /// Seven bits in a byte, the lowest first; the highest bit says that there are more.
    void Varint(std::uint64_t value) {
        for (; value >= 0x80; value >>= 7U) {
            U8(static_cast<std::uint8_t>(value | 0x80U));
        }
        U8(static_cast<std::uint8_t>(value));
    }
    /// Its length as 32 bits, then its bytes.
    void Text(const std::string& text) {
        U32(static_cast<std::uint32_t>(text.size()));
        Raw(text.data(), text.size());
    }

private:
    Bytes& bytes_;
};

/// Reads what ByteWriter wrote. Past the end everything is 0, and Good is false from then on.
class ByteReader {
public:
    ByteReader(const unsigned char* bytes, std::size_t length) : next_(bytes), left_(length) {}

    std::uint8_t U8() { return Number<std::uint8_t>(); }
    std::uint32_t U32() { return le32toh(Number<std::uint32_t>()); }
    std::uint64_t U64() { return le64toh(Number<std::uint64_t>()); }
    std::uint64_t Varint() {
        std::uint64_t value = 0;
        for (unsigned int shift = 0; shift < 64; shift += 7) {
            const std::uint8_t byte = U8();
            value |= std::uint64_t{byte & 0x7FU} << shift;
            if (byte < 0x80) {
                return value;
            }
        }
        good_ = false;
        return 0;
    }
    void Raw(void* bytes, std::size_t length) {
        if (Take(length)) {
            std::memcpy(bytes, next_ - length, length);
        }
    }
    std::string Text() {
        const std::uint32_t length = U32();
        return Take(length) ? std::string(reinterpret_cast<const char*>(next_ - length), length)
                            : std::string();
    }
    bool Good() const { return good_; }
    std::size_t Left() const { return left_; }

private:
    bool Take(std::size_t length) {
        if (!good_ || length > left_) {
            good_ = false;
            return false;
        }
        next_ += length;
        left_ -= length;
        return true;
    }
    template <typename T>
    T Number() {
        T value = 0;
        Raw(&value, sizeof value);
        return value;
    }

    const unsigned char* next_;
    std::size_t left_;
    bool good_ = true;
};

} // namespace drenn::multi_track_recorder
