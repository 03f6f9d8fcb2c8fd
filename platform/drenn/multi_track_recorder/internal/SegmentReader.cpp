#include <algorithm>
#include <stdexcept>

#include "drenn/multi_track_recorder/Track.h"
#include "drenn/multi_track_recorder/internal/PendingBlock.h"
#include "drenn/multi_track_recorder/internal/SegmentReader.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentWalker.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::size_t kMostOpen = 128;
constexpr std::size_t kMostKept = 1U << 18U;   // Of one record, by each thread that reads.
constexpr std::size_t kEntriesTogether = 64;   // 3 KiB; a read of one costs nearly the same.
constexpr std::size_t kMostParts = 16;         // 48 KiB of each open segment.
constexpr std::size_t kMostBlocks = 1U << 17U; // 3 MiB of directories.
constexpr std::uint64_t kLargestFooter = 16ULL << 20U;
static_assert(kLargestPayload == Track::kMaxRecordBytes + 4 * Track::kMaxRecordBlobs);

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
    const RecordEntry entry = EntryOf(block, serial);
    const std::uint32_t wanted = BlobsToRead(entry.blobs, record.getBlobLimit());
    if (wanted == 0) {
        return;
    }
    if (wanted == 1 && entry.firstBlobBytes <= kInlineBytes) {
        record.add(Blob(Bytes(entry.firstBytes.begin(), entry.firstBytes.begin() + entry.firstBlobBytes)));
        return;
    }
    // Kept for the thread's next record: allocating and clearing it would take as long as reading.
    static thread_local Bytes kept;
    Bytes large;
    Bytes& payload = entry.payloadBytes <= kMostKept ? kept : large;
    payload.resize(std::max<std::size_t>(payload.size(), entry.payloadBytes));
    const std::uint64_t payloads =
        std::uint64_t{block.offset} + kBlockHeaderBytes + std::uint64_t{block.count} * kEntryBytes;
    if (file_->Read(payloads + entry.payloadOffset, payload.data(), entry.payloadBytes) !=
        entry.payloadBytes) {
        Fail(track, serial, "the file is too short");
    }
    if (ChecksumOf(payload.data(), entry.payloadBytes, PayloadSeed(track, serial)) != entry.payloadChecksum) {
        Fail(track, serial, "it fails its checksum");
    }
    try {
        FillRecord(payload.data(), entry.payloadBytes, entry.blobs, record);
    } catch (const std::runtime_error& error) {
        Fail(track, serial, error.what());
    }
}

/// The blocks in the directory are durable, so what their indexes hold does not change any more.
RecordEntry SegmentReader::EntryOf(const BlockRef& block, std::uint64_t serial) const {
    const std::uint64_t place = serial - block.firstSerial;
    const std::uint64_t begin = place / kEntriesTogether * kEntriesTogether;
    const std::uint64_t offset = std::uint64_t{block.offset} + kBlockHeaderBytes + begin * kEntryBytes;
    const std::size_t slot = offset / kEntryBytes * 0x9E3779B1U % kMostParts;
    const auto decode = [&](const Bytes& entries) {
        const std::size_t at = static_cast<std::size_t>(place - begin) * kEntryBytes;
        return at + kEntryBytes <= entries.size() ? DecodeEntry(&entries[at], salt_, serial) : std::nullopt;
    };
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!parts_.empty() && parts_[slot].offset == offset) {
            if (const auto entry = decode(parts_[slot].entries)) {
                return *entry;
            }
        }
    }
    Bytes entries(static_cast<std::size_t>(std::min<std::uint64_t>(kEntriesTogether, block.count - begin)) *
                  kEntryBytes);
    entries.resize(file_->Read(offset, entries.data(), entries.size()));
    const auto entry = decode(entries);
    if (!entry) {
        Fail(block.track, serial, "its entry is cut off or fails its checksum");
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    parts_.resize(kMostParts);
    parts_[slot] = {offset, std::move(entries)};
    return *entry;
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
    const auto place = places_.find(segment.key);
    if (place != places_.end() && place->second->isPinned) {
        place->second->isPinned = false;
        place->second->blocks = place->second->reader->Blocks();
        blocks_ += place->second->blocks;
        ++open_;
        Shrink();
    }
}

void SegmentCache::Drop(SegmentKey key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto place = places_.find(key);
    if (place != places_.end()) {
        Remove(place->second);
    }
}

void SegmentCache::DropAll() {
    const std::lock_guard<std::mutex> lock(mutex_);
    slots_.clear();
    places_.clear();
    open_ = 0;
    blocks_ = 0;
}

std::shared_ptr<SegmentReader> SegmentCache::Find(SegmentKey key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto place = places_.find(key);
    if (place == places_.end()) {
        return nullptr;
    }
    slots_.splice(slots_.begin(), slots_, place->second);
    return place->second->reader;
}

void SegmentCache::Insert(Slot slot) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto place = places_.find(slot.key);
    if (place != places_.end()) {
        if (!slot.isPinned) {
            return; // Another thread has opened it meanwhile.
        }
        Remove(place->second);
    }
    open_ += slot.isPinned ? 0U : 1U;
    blocks_ += slot.blocks;
    slots_.push_front(std::move(slot));
    places_[slots_.front().key] = slots_.begin();
    Shrink();
}

void SegmentCache::Remove(std::list<Slot>::iterator slot) {
    open_ -= slot->isPinned ? 0U : 1U;
    blocks_ -= slot->blocks;
    places_.erase(slot->key);
    slots_.erase(slot);
}

/// Closes those that were not used for longest.
void SegmentCache::Shrink() {
    for (auto slot = slots_.end(); slot != slots_.begin() && open_ > 1;) {
        if (open_ <= kMostOpen && blocks_ <= kMostBlocks) {
            return;
        }
        const auto next = std::prev(slot);
        slot = next;
        if (!next->isPinned) {
            slot = std::next(next);
            Remove(next);
        }
    }
}

std::shared_ptr<SegmentReader> SegmentCache::Open(const Segment& segment) const {
    const std::shared_ptr<const IFile> file = files_.Open(segment.path, OpenMode::Read);
    SegmentWalker walker(*file, segment.length);
    if (walker.LaterVersion()) {
        throw std::runtime_error("Cannot read " + segment.path + ": a later version of the store (" +
                                 std::to_string(*walker.LaterVersion()) + ") wrote it");
    }
    const auto& header = walker.Header();
    const bool isOther = header && (header->store != store_ || header->lane != segment.key.lane ||
                                    header->sequence != segment.key.sequence);
    if (isOther || !walker.Salt()) {
        throw std::runtime_error("Cannot read " + segment.path +
                                 ": its header is damaged or another segment's");
    }
    auto reader = std::make_shared<SegmentReader>(file, segment.path, *walker.Salt());
    const std::uint64_t size = file->Size();
    if (size > segment.length && size - segment.length <= kLargestFooter) {
        Bytes footer(static_cast<std::size_t>(size - segment.length));
        file->Read(segment.length, footer.data(), footer.size());
        if (const auto directory = DecodeFooter(footer, *walker.Salt())) {
            for (const BlockRef& block : *directory) {
                reader->Add(block);
            }
            return reader;
        }
    }
    while (const auto block = walker.Find()) {
        if (block->kind == BlockKind::Records) {
            reader->Add({block->track, block->count, block->firstSerial, block->offset});
        }
    }
    return reader;
}

} // namespace drenn::multi_track_recorder
