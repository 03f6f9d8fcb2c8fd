#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "drenn/multi_track_recorder/BlobRecord.h"
#include "drenn/multi_track_recorder/internal/Survivors.h"
#include "drenn/multi_track_recorder/internal/io/Catalogue.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

/// Where the blocks of records of a segment are.
///
/// Threads: any.
class SegmentDirectory {
public:
    /// `hasLeading`: of each block the first bytes are known.
    SegmentDirectory(std::uint64_t salt, bool hasLeading) : salt_(salt), hasLeading_(hasLeading) {}
    explicit SegmentDirectory(const StoredDirectory& stored);

    std::uint64_t Salt() const { return salt_; }
    bool HasLeading() const { return hasLeading_; }
    void Add(const BlockRef& block);
    /// The block with this record.
    std::optional<BlockRef> Find(std::uint32_t track, std::uint64_t serial) const;
    /// In a search through the records of a track, ordered by their first bytes: the record to look at, and if that is the
    /// last of its block that survives, the first of the next block.
    struct Aim {
        std::uint64_t serial = 0;
        std::optional<std::uint64_t> next;
    };
    /// As near to `serial` as the block allows in which the search ends; that itself where the directory cannot tell. Blocks
    /// whose first record is not among `survivors` are passed over.
    Aim AimAt(std::uint32_t track, std::uint64_t serial, const Survivors& survivors,
              const std::function<bool(const LeadingBytes&)>& isBefore) const;
    std::size_t Blocks() const;
    /// By track, then serial.
    std::vector<BlockRef> List() const;

private:
    const std::uint64_t salt_;
    const bool hasLeading_;
    mutable std::mutex mutex_;
    std::map<std::uint32_t, std::vector<BlockRef>> blocks_; ///< Of each track, in the order of serials.
};

/// The entries of some records that lie together in the index of a block, as they are on the device.
struct IndexPart {
    static constexpr std::size_t kMostEntries = 64; ///< 3 KiB; reading one costs nearly the same.

    std::uint32_t track;
    std::uint64_t offset; ///< In the segment.
    SerialRange range;    ///< The records.
    std::array<unsigned char, kMostEntries * kEntryBytes> entries;
};

/// Reads records of one segment. Keeps some parts of its index.
///
/// Threads: any.
/// Errors:  std::runtime_error that names the file and the record for what is missing or fails its checksum.
class SegmentReader {
public:
    SegmentReader(std::shared_ptr<const IFile> file, const std::string& path,
                  std::shared_ptr<SegmentDirectory> directory);

    const std::shared_ptr<SegmentDirectory>& Directory() const { return directory_; }
    RecordEntry Entry(std::uint32_t track, std::uint64_t serial) const;
    void Read(std::uint32_t track, std::uint64_t serial, BlobRecord& record) const;
    struct Found {
        std::shared_ptr<const IndexPart> part;
        RecordEntry entry;
    };
    /// The part with the entry of this record, and that.
    Found PartOf(std::uint32_t track, std::uint64_t serial) const;
    /// Tells that the part with the entry of this record will be asked for.
    void WillRead(std::uint32_t track, std::uint64_t serial) const;
    /// Of a record in the part.
    RecordEntry Entry(const IndexPart& part, std::uint64_t serial) const;

private:
    /// The part of a block's index with a record: which records it has, and where it is.
    struct PartPlace {
        SerialRange range;
        std::uint64_t offset;
        std::size_t slot; ///< In `parts_`.
    };
    static PartPlace PlaceOf(const BlockRef& block, std::uint64_t serial);
    BlockRef BlockOf(std::uint32_t track, std::uint64_t serial) const;
    bool HasPart(const PartPlace& place) const;
    Found PartOf(const BlockRef& block, std::uint64_t serial) const;
    std::optional<RecordEntry> Decode(const IndexPart& part, std::uint64_t serial) const;
    [[noreturn]] void Fail(std::uint32_t track, std::uint64_t serial, const std::string& reason) const;

    const std::shared_ptr<const IFile> file_;
    const std::string path_;
    const std::shared_ptr<SegmentDirectory> directory_;
    mutable std::mutex mutex_;
    mutable std::vector<std::shared_ptr<const IndexPart>>
        parts_; ///< Each in the place that its offset tells.
};

/// A segment, as the tables in memory know it.
struct Segment {
    Segment(SegmentKey segmentKey, const std::string& segmentPath) : key(segmentKey), path(segmentPath) {}

    const SegmentKey key;
    const std::string path;
    /// Where it is known without reading the header. Set before others see the segment.
    std::optional<std::uint64_t> salt;
    std::atomic<std::uint64_t> survivors{0};
    /// The ring has begun to erase it. Only the ring marks it as to be removed, together with what it erased in all tracks.
    std::atomic<bool> isErasing{false};
    // Guarded by the catalogue's transaction.
    std::uint64_t length = 0;
    std::uint64_t time = 0;
    bool isSealed = false;
    bool isRemoving = false;
    bool isDamaged = false; ///< It may hold more than is known of it: only the ring removes it.

    /// Whether it may be removed as soon as nothing in it survives. Within a transaction.
    bool DiesWhenEmpty() const { return isSealed && !isRemoving && !isErasing && !isDamaged; }
};

/// Directories of the segments that were read last, and of some of them the open file: a descriptor costs more.
///
/// Threads: any.
class SegmentCache {
public:
    SegmentCache(IFileSystem& files, const StoreId& store) : files_(files), store_(store) {}

    /// Opens the segment unless it is open.
    std::shared_ptr<SegmentReader> Get(const Segment& segment);
    /// A segment that is being written; it stays until it is dropped.
    void Pin(const Segment& segment, std::shared_ptr<SegmentReader> reader);
    void Unpin(const Segment& segment);
    /// True once, and again after DropAll: whoever gets it learns the directories that the catalogue has.
    bool BeginToLearn();
    /// Of a segment that is sealed, to be dropped before those that were used. False, without keeping it, when there is no room.
    bool Learn(SegmentKey key, std::shared_ptr<SegmentDirectory> directory);
    void Drop(SegmentKey key);
    void DropAll();

private:
    struct Slot;
    using Slots = std::list<Slot>;
    struct Slot {
        SegmentKey key;
        std::shared_ptr<SegmentDirectory> directory;
        std::shared_ptr<SegmentReader> reader; ///< Null: closed.
        bool isPinned;
        std::size_t cost;
        std::list<Slots::iterator>::iterator open; ///< Of one that is open and not pinned.

        bool IsCounted() const { return reader != nullptr && !isPinned; }
    };
    struct Hash {
        std::size_t operator()(const SegmentKey& key) const {
            return std::hash<std::uint64_t>()(std::uint64_t{key.lane} << 32U | key.sequence);
        }
    };

    std::shared_ptr<SegmentReader> Open(const IFolder& folder, const Segment& segment,
                                        std::shared_ptr<SegmentDirectory> directory) const;
    std::shared_ptr<SegmentDirectory> ReadDirectory(const Segment& segment, const IFile& file) const;
    void Insert(const Segment& segment, std::shared_ptr<SegmentReader> reader, bool isPinned);
    void Use(Slots::iterator slot);
    void Remove(Slots::iterator slot);
    void Shrink();

    IFileSystem& files_;
    const StoreId store_;
    std::mutex mutex_;
    std::shared_ptr<const IFolder> folder_; ///< Null: closed.
    std::uint64_t drops_ = 0;               ///< How often everything was let go of.
    Slots slots_;                           ///< Used last in front.
    std::unordered_map<SegmentKey, Slots::iterator, Hash> places_;
    std::list<Slots::iterator> open_; ///< Those that are open and not pinned, likewise.
    std::size_t cost_ = 0;            ///< Of slots that are not pinned.
    bool hasLearned_ = false;
};

} // namespace drenn::multi_track_recorder
