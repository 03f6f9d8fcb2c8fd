// Any bytes are refused or are a directory, which as bytes is the same again: that of a footer, and that of the catalogue.

#include <cstddef>
#include <cstdint>

#include "Require.h"
#include "StoreBytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace drenn::multi_track_recorder;
    constexpr std::uint64_t kSalt = 7;
    Bytes bytes(data, data + size);
    REQUIRE(!DecodeFooter(bytes, kSalt) || EncodeFooter(*DecodeFooter(bytes, kSalt), kSalt) == bytes);
    bytes.resize(bytes.size() + 8);
    store_bytes::Seal(bytes, 0, size, kSalt);
    const auto directory = DecodeFooter(bytes, kSalt);
    REQUIRE(!directory || EncodeFooter(*directory, kSalt) == bytes);

    if (size >= 8) {
        store_bytes::Seal(bytes, 0, size, ByteReader(data, size).U64());
    }
    if (const auto stored =
            DecodeDirectory(bytes.data(), bytes.size())) { // Its numbers may be written in several ways.
        const Bytes again = EncodeDirectory(stored->blocks, stored->salt);
        const auto same = DecodeDirectory(again.data(), again.size());
        REQUIRE(same && EncodeDirectory(same->blocks, same->salt) == again);
    }
    return 0;
}
