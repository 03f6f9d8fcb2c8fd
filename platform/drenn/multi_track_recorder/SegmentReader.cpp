#include <algorithm>
#include <stdexcept>

#include "drenn/multi_track_recorder/PendingBlockImpl.h"
#include "drenn/multi_track_recorder/SegmentReaderImpl.h"
#include "drenn/multi_track_recorder/SegmentWalkerImpl.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::size_t kMostOpen = 32;
constexpr std::size_t kMostBlocks = 1U << 17U; // 3 MiB of directories.
constexpr std::uint64_t kLargestFooter = 16ULL << 20U;

} // namespace

SegmentReader::SegmentReader(std::shared_ptr<const IFile> file, const std::string& path, std::uint64_t salt)
    : file_(std::move(file)), path_(path), salt_(salt) {}

void SegmentReader::Add(const BlockRef& block) {
    const std::lock_guard<std::mutex> lock(mutex_);
    blocks_[block.track].push_back(block);
}

std::size_t SegmentReader::Blocks() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::size_t blocks = 0;
    for (const auto& [track, list] : blocks_) {
        blocks += list.size();
    }
    return blocks;
}

std::vector<BlockRef> SegmentReader::Directory() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<BlockRef> directory;
    for (const auto& [track, list] : blocks_) {
        directory.insert(directory.end(), list.begin(), list.end());
    }
    return directory;
}

BlockRef SegmentReader::Find(std::uint32_t track, std::uint64_t serial) const {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto list = blocks_.find(track);
        if (list != blocks_.end()) {
            const auto behind = std::upper_bound(
                list->second.begin(), list->second.end(), serial,
                [](std::uint64_t value, const BlockRef& block) { return value < block.firstSerial; });
            if (behind != list->second.begin() &&
                serial - std::prev(behind)->firstSerial < std::prev(behind)->count) {
                return *std::prev(behind);
            }
        }
    }
    Fail(track, serial, "it is not there");
}

void SegmentReader::Read(std::uint32_t track, std::uint64_t serial, BlobRecord& record) const {
    const BlockRef block = Find(track, serial);
    unsigned char bytes[kEntryBytes];
    const std::uint64_t index = std::uint64_t{block.offset} + kBlockHeaderBytes;
    if (file_->Read(index + (serial - block.firstSerial) * kEntryBytes, bytes, kEntryBytes) != kEntryBytes) {
        Fail(track, serial, "the file is too short");
    }
    const auto entry = DecodeEntry(bytes, salt_, serial);
    if (!entry) {
        Fail(track, serial, "its entry fails its checksum");
    }
    const std::uint32_t wanted = BlobsToRead(entry->blobs, record.getBlobLimit());
    if (wanted == 0) {
        return;
    }
    if (wanted == 1 && entry->firstBlobBytes <= kInlineBytes) {
        record.add(Blob(Bytes(entry->firstBytes.begin(), entry->firstBytes.begin() + entry->firstBlobBytes)));
        return;
    }
    Bytes payload(entry->payloadBytes);
    const std::uint64_t payloads = index + std::uint64_t{block.count} * kEntryBytes;
    if (file_->Read(payloads + entry->payloadOffset, payload.data(), payload.size()) != payload.size()) {
        Fail(track, serial, "the file is too short");
    }
    if (ChecksumOf(payload.data(), payload.size(), PayloadSeed(track, serial)) != entry->payloadChecksum) {
        Fail(track, serial, "it fails its checksum");
    }
    FillRecord(payload.data(), payload.size(), entry->blobs, record);
}

void SegmentReader::Fail(std::uint32_t track, std::uint64_t serial, const std::string& reason) const {
    throw std::runtime_error("Cannot read record " + std::to_string(serial) + " of track " +
                             std::to_string(track) + " from " + path_ + ": " + reason);
}

std::shared_ptr<SegmentReader> SegmentCache::Get(const Segment& segment) {
    if (auto reader = Find(segment.key)) {
        return reader;
    }
    // Not under the lock: the device may be slow, and others read what is open.
    auto reader = Open(segment);
    Insert({segment.key, reader, false, reader->Blocks()});
    return reader;
}

void SegmentCache::Pin(const Segment& segment, std::shared_ptr<SegmentReader> reader) {
    Insert({segment.key, std::move(reader), true, 0});
}

void SegmentCache::Unpin(const Segment& segment) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (Slot& slot : slots_) {
        if (slot.key == segment.key) {
            slot.isPinned = false;
            slot.blocks = slot.reader->Blocks();
        }
    }
}

void SegmentCache::Drop(SegmentKey key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    slots_.remove_if([key](const Slot& slot) { return slot.key == key; });
}

void SegmentCache::DropAll() {
    const std::lock_guard<std::mutex> lock(mutex_);
    slots_.clear();
}

std::shared_ptr<SegmentReader> SegmentCache::Find(SegmentKey key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto slot = slots_.begin(); slot != slots_.end(); ++slot) {
        if (slot->key == key) {
            slots_.splice(slots_.begin(), slots_, slot);
            return slot->reader;
        }
    }
    return nullptr;
}

void SegmentCache::Insert(Slot slot) {
    const std::lock_guard<std::mutex> lock(mutex_);
    slots_.push_front(std::move(slot));
    std::size_t open = 0;
    std::size_t blocks = 0;
    for (auto each = slots_.begin(); each != slots_.end();) {
        open += each->isPinned ? 0U : 1U;
        blocks += each->blocks;
        const bool isTooMuch = open > 1 && (open > kMostOpen || blocks > kMostBlocks);
        if (isTooMuch && !each->isPinned) {
            blocks -= each->blocks;
            each = slots_.erase(each);
        } else {
            ++each;
        }
    }
}

std::shared_ptr<SegmentReader> SegmentCache::Open(const Segment& segment) const {
    const std::shared_ptr<const IFile> file = files_.Open(segment.path, OpenMode::Read);
    SegmentWalker walker(*file, segment.length);
    const auto& header = walker.Header();
    if (!header || header->store != store_ || header->lane != segment.key.lane ||
        header->sequence != segment.key.sequence) {
        throw std::runtime_error("Cannot read " + segment.path +
                                 ": its header is damaged or another segment's");
    }
    auto reader = std::make_shared<SegmentReader>(file, segment.path, header->salt);
    const std::uint64_t size = file->Size();
    if (size > segment.length && size - segment.length <= kLargestFooter) {
        Bytes footer(static_cast<std::size_t>(size - segment.length));
        file->Read(segment.length, footer.data(), footer.size());
        if (const auto directory = DecodeFooter(footer, header->salt)) {
            for (const BlockRef& block : *directory) {
                reader->Add(block);
            }
            return reader;
        }
    }
    while (const auto block = walker.Next(false)) {
        if (block->kind == BlockKind::Records) {
            reader->Add({block->track, block->count, block->firstSerial, block->offset});
        }
    }
    return reader;
}

} // namespace drenn::multi_track_recorder
