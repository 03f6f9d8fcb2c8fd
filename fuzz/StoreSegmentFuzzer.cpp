// Any bytes as a sealed segment: its blocks lie in it and follow one another, and a record can be read or is refused.
// The first byte of an input: whether checksums are mended, so that fields are looked at, too.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "Require.h"
#include "StoreBytes.h"
#include "drenn/multi_track_recorder/internal/SegmentReader.h"
#include "support/store/SimFileSystem.h"

namespace {

using namespace drenn::multi_track_recorder;

void CheckWalk(const IFile& file, std::uint64_t size) {
    SegmentWalker walker(file, std::numeric_limits<std::uint32_t>::max());
    std::uint64_t end = kSegmentHeaderBytes;
    while (const auto block = walker.Find()) {
        REQUIRE(block->offset >= end);
        REQUIRE(block->End() > end && block->End() <= size);
        end = block->End();
        if (block->kind != BlockKind::Records) {
            const auto state = DecodeLaneState(walker.Body(*block));
            REQUIRE(!state || DecodeLaneState(EncodeBody(*state))->tracks.size() == state->tracks.size());
        }
    }
}

/// Reads a record or is told, with the name of the file, why not.
template <typename Action>
void MayRefuse(const std::string& path, const Action& action) {
    try {
        action();
    } catch (const std::runtime_error& refusal) {
        REQUIRE(std::string(refusal.what()).find(path) != std::string::npos);
    }
}

void ReadAll(SimFileSystem& disk, const SegmentHeader& header, const std::string& path,
             std::uint64_t length) {
    Segment segment({header.lane, header.sequence}, path);
    segment.length = length;
    SegmentCache cache(disk, header.store);
    MayRefuse(path, [&] {
        const auto reader = cache.Get(segment);
        for (const BlockRef& block : reader->Directory()->List()) {
            for (std::uint32_t i = 0; i < std::min<std::uint32_t>(block.count, 100); ++i) {
                for (const int limit : {1, -1}) {
                    BlobRecord record(limit);
                    MayRefuse(path, [&] { reader->Read(block.track, block.firstSerial + i, record); });
                }
            }
        }
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    Bytes bytes(data + 1, data + size);
    if (data[0] % 2 != 0) {
        store_bytes::MendSegment(bytes);
    }
    const std::string path = "/card/segment";
    SimFileSystem disk;
    disk.MakeFolder("/card");
    const auto file = disk.Open(path, OpenMode::Create);
    file->Write(0, bytes.data(), bytes.size());
    CheckWalk(*file, bytes.size());
    const auto header = DecodeSegmentHeader(bytes.data(), bytes.size());
    if (header) {
        SegmentWalker walker(*file, bytes.size());
        while (walker.Find()) {
        }
        ReadAll(disk, *header, path, walker.Offset()); // What is behind may be a footer.
        ReadAll(disk, *header, path,
                std::min<std::size_t>(4200, bytes.size())); // Or what the catalogue says is wrong.
    }
    return 0;
}
