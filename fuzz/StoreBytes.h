#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>

#include "drenn/multi_track_recorder/internal/recovery/SegmentWalker.h"

/// The fuzzer does not find checksums by itself: these put the right ones into bytes that look like a segment.
namespace store_bytes {

using drenn::multi_track_recorder::ByteReader;
using drenn::multi_track_recorder::Bytes;
using drenn::multi_track_recorder::ByteWriter;
using drenn::multi_track_recorder::ChecksumOf;

inline std::uint64_t Number(const Bytes& bytes, std::size_t offset, unsigned length) {
    ByteReader reader(&bytes[offset], length);
    return length == 4 ? reader.U32() : reader.U64();
}

inline void Put(Bytes& bytes, std::size_t offset, std::uint64_t value) {
    Bytes encoded;
    ByteWriter(encoded).U64(value);
    std::copy(encoded.begin(), encoded.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

inline void Seal(Bytes& bytes, std::size_t begin, std::size_t end, std::uint64_t seed) {
    Put(bytes, end, ChecksumOf(&bytes[begin], end - begin, seed));
}

/// The header and the blocks, as far as their lengths allow.
inline void MendSegment(Bytes& bytes) {
    using namespace drenn::multi_track_recorder;
    if (bytes.size() < kSegmentHeaderBytes) {
        return;
    }
    Seal(bytes, 0, 44, 0);
    const std::uint64_t salt = Number(bytes, 36, 8);
    for (std::size_t block = kSegmentHeaderBytes; block + kBlockHeaderBytes <= bytes.size();) {
        const std::uint64_t count = Number(bytes, block + 16, 4);
        const std::uint64_t index = Number(bytes, block + 20, 4);
        const std::uint64_t payload = Number(bytes, block + 24, 4);
        const std::uint64_t serial = Number(bytes, block + 32, 8);
        if (block + kBlockHeaderBytes + index + payload > bytes.size()) {
            return;
        }
        const std::size_t entries = block + kBlockHeaderBytes;
        for (std::uint64_t i = 0; i < count && (i + 1) * kEntryBytes <= index; ++i) {
            const std::size_t entry = entries + static_cast<std::size_t>(i) * kEntryBytes;
            const std::uint64_t begin = Number(bytes, entry + 16, 4);
            const std::uint64_t length = Number(bytes, entry + 20, 4);
            if (length > 0 && begin + length <= payload) {
                const auto track = static_cast<std::uint32_t>(Number(bytes, block + 12, 4));
                Put(bytes, entry + 32,
                    ChecksumOf(&bytes[entries + static_cast<std::size_t>(index + begin)],
                               static_cast<std::size_t>(length), PayloadSeed(track, serial + i)));
            }
            Seal(bytes, entry, entry + 40, salt + serial + i);
        }
        Put(bytes, block + 48, ChecksumOf(bytes.data() + entries, static_cast<std::size_t>(index), salt));
        Put(bytes, block + 56, salt);
        Seal(bytes, block, block + 64, salt);
        block += static_cast<std::size_t>(kBlockHeaderBytes + index + payload);
    }
}

} // namespace store_bytes
