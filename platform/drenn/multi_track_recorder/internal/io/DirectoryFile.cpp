#include "drenn/multi_track_recorder/internal/io/DirectoryFile.h"

#include <algorithm>
#include <vector>

namespace drenn::multi_track_recorder {
namespace {

constexpr std::uint32_t kMagic = 0x52494443; // "CDIR"
constexpr std::size_t kHeadBytes = 16;
constexpr std::size_t kSealBytes = 8;

struct Entry {
    SegmentKey segment;
    std::size_t begin; ///< Of the directory.
    std::size_t length;
};

/// The one that begins at a place; nothing unless it checks.
std::optional<Entry> EntryAt(const Bytes& bytes, std::size_t place) {
    if (bytes.size() - place < kHeadBytes + kSealBytes) {
        return std::nullopt;
    }
    ByteReader reader(&bytes[place], kHeadBytes);
    const std::uint32_t magic = reader.U32();
    const SegmentKey segment{reader.U32(), reader.U32()};
    const std::size_t length = reader.U32();
    if (magic != kMagic || length > bytes.size() - place - kHeadBytes - kSealBytes) {
        return std::nullopt;
    }
    const std::size_t sealed = kHeadBytes + length;
    const std::uint64_t checksum = ByteReader(&bytes[place + sealed], kSealBytes).U64();
    return checksum == ChecksumOf(&bytes[place], sealed, 0)
               ? std::make_optional(Entry{segment, place + kHeadBytes, length})
               : std::nullopt;
}

} // namespace

void DirectoryFile::Append(SegmentKey segment, const Bytes& directory) {
    Bytes entry;
    ByteWriter writer(entry);
    writer.U32(kMagic);
    writer.U32(segment.lane);
    writer.U32(segment.sequence);
    writer.U32(static_cast<std::uint32_t>(directory.size()));
    writer.Raw(directory.data(), directory.size());
    writer.U64(ChecksumOf(entry.data(), entry.size(), 0));
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto file = files_.Open(path_, OpenMode::Create);
    if (file->Size() + entry.size() > kMostBytes) {
        file->Truncate(0);
    }
    file->Write(file->Size(), entry.data(), entry.size());
}

void DirectoryFile::ForEach(
    const std::function<void(SegmentKey, const StoredDirectory&)>& onDirectory) const {
    Bytes bytes;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!files_.Exists(path_)) {
            return;
        }
        const auto file = files_.Open(path_, OpenMode::Read);
        bytes.resize(static_cast<std::size_t>(std::min(file->Size(), kMostBytes)));
        bytes.resize(file->Read(0, bytes.data(), bytes.size()));
    }
    std::vector<Entry> entries;
    for (std::size_t place = 0; place < bytes.size();) {
        const auto entry = EntryAt(bytes, place);
        if (entry) {
            entries.push_back(*entry);
            place = entry->begin + entry->length + kSealBytes;
        } else {
            ++place; // A power cut may leave anything between two of them.
        }
    }
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
        if (const auto directory = DecodeDirectory(&bytes[entry->begin], entry->length)) {
            onDirectory(entry->segment, *directory);
        }
    }
}

} // namespace drenn::multi_track_recorder
