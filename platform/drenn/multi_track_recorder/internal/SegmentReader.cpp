#include <algorithm>
#include <stdexcept>
#include <utility>

#include "drenn/multi_track_recorder/Track.h"
#include "drenn/multi_track_recorder/internal/PendingBlock.h"
#include "drenn/multi_track_recorder/internal/SegmentReader.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentWalker.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::size_t kMostOpen = 128;
constexpr std::size_t kMostKept = 1U << 18U; // Of one record, by each thread that reads.
constexpr std::size_t kMostParts = 16;       // 48 KiB of each open segment.
constexpr std::size_t kMostCost = 160'000;   // In blocks of a directory, which take 40 bytes each: 6 MiB.
constexpr std::size_t kCostOfOne = 10;       // What a directory takes beside its blocks.
constexpr std::uint64_t kLargestFooter = 16ULL << 20U;
static_assert(kLargestPayload == Track::kMaxRecordBytes + 4 * Track::kMaxRecordBlobs);

/// Null without one that checks.
std::shared_ptr<SegmentDirectory> ReadFooter(const IFile& file, std::uint64_t length, std::uint64_t salt) {
    const std::uint64_t size = file.Size();
    if (size <= length || size - length > kLargestFooter) {
        return nullptr;
    }
    Bytes footer(static_cast<std::size_t>(size - length));
    file.Read(length, footer.data(), footer.size());
    const auto blocks = DecodeFooter(footer, salt);
    if (!blocks) {
        return nullptr;
    }
    auto directory = std::make_shared<SegmentDirectory>(salt, false);
    for (const BlockRef& block : *blocks) {
        directory->Add(block);
    }
    return directory;
}

} // namespace

SegmentDirectory::SegmentDirectory(const StoredDirectory& stored) : SegmentDirectory(stored.salt, true) {
    for (auto first = stored.blocks.begin(); first != stored.blocks.end();) {
        const auto end = std::find_if(first, stored.blocks.end(), [&first](const BlockRef& block) {
            return block.track != first->track;
        });
        blocks_[first->track].assign(first, end); // No larger than it has to be.
        first = end;
    }
}

void SegmentDirectory::Add(const BlockRef& block) {
    const std::lock_guard<std::mutex> lock(mutex_);
    blocks_[block.track].push_back(block);
}

std::optional<BlockRef> SegmentDirectory::Find(std::uint32_t track, std::uint64_t serial) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto list = blocks_.find(track);
    if (list == blocks_.end()) {
        return std::nullopt;
    }
    const auto behind = std::upper_bound(
        list->second.begin(), list->second.end(), serial,
        [](std::uint64_t value, const BlockRef& block) { return value < block.firstSerial; });
    const bool isThere =
        behind != list->second.begin() && serial - std::prev(behind)->firstSerial < std::prev(behind)->count;
    return isThere ? std::make_optional(*std::prev(behind)) : std::nullopt;
}

SegmentDirectory::Aim SegmentDirectory::AimAt(
    std::uint32_t track, std::uint64_t serial, const Survivors& survivors,
    const std::function<bool(const LeadingBytes&)>& isBefore) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto list = blocks_.find(track);
    if (!hasLeading_ || list == blocks_.end()) {
        return {serial, std::nullopt};
    }
    const auto isKnown = [&survivors](const BlockRef& block) { return survivors.Has(block.firstSerial); };
    auto low = list->second.begin(); // Known ones in front of here are before,
    auto high = list->second.end();  // and known ones from here on are not.
    while (low != high) {
        const auto middle = low + (high - low) / 2;
        const auto known = std::find_if(middle, high, isKnown);
        if (known != high && isBefore(known->leading)) {
            low = std::next(known);
        } else {
            high = middle;
        }
    }
    const bool hasNext = low != list->second.end();
    if (low == list->second.begin() || (hasNext && !isKnown(*low))) {
        return {serial, std::nullopt}; // It may end in records whose block is not known.
    }
    const BlockRef& block = *std::prev(low);
    const std::uint64_t last =
        survivors.SerialAt(survivors.IndexOf(block.firstSerial + block.count) - 1); // The first one survives.
    return {std::clamp(serial, block.firstSerial, last),
            hasNext && serial >= last ? std::make_optional(low->firstSerial) : std::nullopt};
}

std::size_t SegmentDirectory::Blocks() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::size_t blocks = 0;
    for (const auto& [track, list] : blocks_) {
        blocks += list.size();
    }
    return blocks;
}

std::vector<BlockRef> SegmentDirectory::List() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<BlockRef> directory;
    for (const auto& [track, list] : blocks_) {
        directory.insert(directory.end(), list.begin(), list.end());
    }
    return directory;
}

SegmentReader::SegmentReader(std::shared_ptr<const IFile> file, const std::string& path,
                             std::shared_ptr<SegmentDirectory> directory)
    : file_(std::move(file)), path_(path), directory_(std::move(directory)) {}

BlockRef SegmentReader::BlockOf(std::uint32_t track, std::uint64_t serial) const {
    const std::optional<BlockRef> block = directory_->Find(track, serial);
    if (!block) {
        Fail(track, serial, "it is not there");
    }
    return *block;
}

RecordEntry SegmentReader::Entry(std::uint32_t track, std::uint64_t serial) const {
    return PartOf(track, serial).entry;
}

void SegmentReader::Read(std::uint32_t track, std::uint64_t serial, BlobRecord& record) const {
    const BlockRef block = BlockOf(track, serial);
    const RecordEntry entry = PartOf(block, serial).entry;
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

SegmentReader::Found SegmentReader::PartOf(std::uint32_t track, std::uint64_t serial) const {
    return PartOf(BlockOf(track, serial), serial);
}

SegmentReader::PartPlace SegmentReader::PlaceOf(const BlockRef& block, std::uint64_t serial) {
    const std::uint64_t begin =
        (serial - block.firstSerial) / IndexPart::kMostEntries * IndexPart::kMostEntries;
    const std::uint64_t count = std::min<std::uint64_t>(IndexPart::kMostEntries, block.count - begin);
    const std::uint64_t offset = std::uint64_t{block.offset} + kBlockHeaderBytes + begin * kEntryBytes;
    return {{block.firstSerial + begin, block.firstSerial + begin + count},
            offset,
            static_cast<std::size_t>(offset / kEntryBytes * 0x9E3779B1U % kMostParts)};
}

/// Under the lock.
bool SegmentReader::HasPart(const PartPlace& place) const {
    return !parts_.empty() && parts_[place.slot] != nullptr && parts_[place.slot]->offset == place.offset;
}

void SegmentReader::WillRead(std::uint32_t track, std::uint64_t serial) const {
    const PartPlace place = PlaceOf(BlockOf(track, serial), serial);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!HasPart(place)) {
        file_->WillRead(place.offset, (place.range.end - place.range.first) * kEntryBytes);
    }
}

/// The blocks in the directory are durable, so what their indexes hold does not change any more.
SegmentReader::Found SegmentReader::PartOf(const BlockRef& block, std::uint64_t serial) const {
    const PartPlace place = PlaceOf(block, serial);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (HasPart(place)) {
            if (const auto entry = Decode(*parts_[place.slot], serial)) {
                return {parts_[place.slot], *entry};
            }
        }
    }
    const std::shared_ptr<IndexPart> part(new IndexPart); // Not cleared: it is read into.
    const std::size_t bytes =
        file_->Read(place.offset, part->entries.data(),
                    static_cast<std::size_t>(place.range.end - place.range.first) * kEntryBytes);
    part->track = block.track;
    part->offset = place.offset;
    part->range.first = place.range.first;
    part->range.end = part->range.first + bytes / kEntryBytes;
    const RecordEntry entry = Entry(*part, serial);
    const std::lock_guard<std::mutex> lock(mutex_);
    parts_.resize(kMostParts);
    parts_[place.slot] = part;
    return {part, entry};
}

std::optional<RecordEntry> SegmentReader::Decode(const IndexPart& part, std::uint64_t serial) const {
    return serial >= part.range.end
               ? std::nullopt
               : DecodeEntry(&part.entries[static_cast<std::size_t>(serial - part.range.first) * kEntryBytes],
                             directory_->Salt(), serial);
}

RecordEntry SegmentReader::Entry(const IndexPart& part, std::uint64_t serial) const {
    const auto entry = Decode(part, serial);
    if (!entry) {
        Fail(part.track, serial, "its entry is cut off or fails its checksum");
    }
    return *entry;
}

void SegmentReader::Fail(std::uint32_t track, std::uint64_t serial, const std::string& reason) const {
    throw std::runtime_error("Cannot read record " + std::to_string(serial) + " of track " +
                             std::to_string(track) + " from " + path_ + ": " + reason);
}

std::shared_ptr<SegmentReader> SegmentCache::Get(const Segment& segment) {
    std::shared_ptr<SegmentDirectory> directory;
    std::shared_ptr<const IFolder> folder;
    std::uint64_t drops = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto place = places_.find(segment.key);
        if (place != places_.end()) {
            Use(place->second);
            if (place->second->reader != nullptr) {
                return place->second->reader;
            }
            directory = place->second->directory;
            if (directory->HasLeading() && segment.salt != directory->Salt()) {
                directory = nullptr; // One that was learned, and may be another's.
            }
        }
        folder = folder_;
        drops = drops_;
    }
    // Not under the lock: the device may be slow, and others read what is open.
    if (folder == nullptr) {
        folder = files_.OpenFolder(segment.path.substr(0, segment.path.rfind('/')));
    }
    auto reader = Open(*folder, segment, std::move(directory));
    const std::lock_guard<std::mutex> lock(mutex_);
    if (drops == drops_) { // Otherwise it is of a card that is away.
        folder_ = std::move(folder);
        Insert(segment, reader, false);
    }
    return reader;
}

void SegmentCache::Pin(const Segment& segment, std::shared_ptr<SegmentReader> reader) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Insert(segment, std::move(reader), true);
}

void SegmentCache::Unpin(const Segment& segment) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto place = places_.find(segment.key);
    if (place != places_.end() && place->second->isPinned) {
        Slot& slot = *place->second;
        slot.isPinned = false;
        slot.cost = kCostOfOne + slot.directory->Blocks();
        cost_ += slot.cost;
        slot.open = open_.insert(open_.begin(), place->second);
        Shrink();
    }
}

bool SegmentCache::BeginToLearn() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return !std::exchange(hasLearned_, true);
}

bool SegmentCache::Learn(SegmentKey key, std::shared_ptr<SegmentDirectory> directory) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t cost = kCostOfOne + directory->Blocks();
    if (cost_ + cost > kMostCost) {
        return false;
    }
    if (places_.count(key) == 0) {
        slots_.push_back({key, std::move(directory), nullptr, false, cost, {}});
        places_.emplace(key, std::prev(slots_.end()));
        cost_ += cost;
    }
    return true;
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
    ++drops_;
    folder_.reset();
    slots_.clear();
    places_.clear();
    open_.clear();
    cost_ = 0;
    hasLearned_ = false;
}

void SegmentCache::Insert(const Segment& segment, std::shared_ptr<SegmentReader> reader, bool isPinned) {
    auto place = places_.find(segment.key);
    if (place != places_.end() && isPinned) {
        Remove(place->second);
        place = places_.end();
    }
    if (place == places_.end()) {
        const std::size_t cost = isPinned ? 0 : kCostOfOne + reader->Directory()->Blocks();
        slots_.push_front({segment.key, reader->Directory(), nullptr, isPinned, cost, {}});
        place = places_.emplace(segment.key, slots_.begin()).first;
        cost_ += cost;
    }
    const auto slot = place->second;
    if (slot->reader != nullptr) {
        return; // Another thread has opened it meanwhile.
    }
    slot->reader = std::move(reader);
    if (slot->IsCounted()) {
        slot->open = open_.insert(open_.begin(), slot);
    }
    Shrink();
}

void SegmentCache::Use(Slots::iterator slot) {
    slots_.splice(slots_.begin(), slots_, slot);
    if (slot->IsCounted()) {
        open_.splice(open_.begin(), open_, slot->open);
    }
}

void SegmentCache::Remove(Slots::iterator slot) {
    if (slot->IsCounted()) {
        open_.erase(slot->open);
    }
    cost_ -= slot->cost;
    places_.erase(slot->key);
    slots_.erase(slot);
}

/// Closes, and then forgets, those that were not used for longest.
void SegmentCache::Shrink() {
    while (open_.size() > kMostOpen) {
        open_.back()->reader.reset();
        open_.pop_back();
    }
    for (auto slot = slots_.end(); cost_ > kMostCost && slot != std::next(slots_.begin());) {
        const auto last = std::prev(slot);
        slot = last;
        if (!last->isPinned) {
            slot = std::next(last);
            Remove(last);
        }
    }
}

std::shared_ptr<SegmentReader> SegmentCache::Open(const IFolder& folder, const Segment& segment,
                                                  std::shared_ptr<SegmentDirectory> directory) const {
    const std::shared_ptr<const IFile> file =
        folder.Open(segment.path.substr(segment.path.rfind('/') + 1), OpenMode::Read);
    if (directory == nullptr) {
        directory = ReadDirectory(segment, *file);
    }
    return std::make_shared<SegmentReader>(file, segment.path, std::move(directory));
}

/// From the footer, or else by walking. Everything in a segment is sealed with its salt, so a file that goes with a salt
/// that is known needs no look at its header.
std::shared_ptr<SegmentDirectory> SegmentCache::ReadDirectory(const Segment& segment,
                                                              const IFile& file) const {
    if (segment.salt) {
        if (auto directory = ReadFooter(file, segment.length, *segment.salt)) {
            return directory;
        }
    }
    SegmentWalker walker(file, segment.length);
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
    if (auto directory = ReadFooter(file, segment.length, *walker.Salt())) {
        return directory;
    }
    auto directory = std::make_shared<SegmentDirectory>(*walker.Salt(), false);
    while (const auto block = walker.Find()) {
        if (block->kind == BlockKind::Records) {
            directory->Add({block->track, block->count, block->firstSerial, block->offset});
        }
    }
    return directory;
}

} // namespace drenn::multi_track_recorder
