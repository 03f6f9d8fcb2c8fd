#pragma once

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/BlobRecord.h"
#include "drenn/multi_track_recorder/internal/io/Catalogue.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

/// Reads records of one segment. Keeps some parts of its index, each with the entries of records that lie together.
///
/// Threads: any.
/// Errors:  std::runtime_error that names the file and the record for what is missing or fails its checksum.
class SegmentReader {
public:
    SegmentReader(std::shared_ptr<const IFile> file, const std::string& path, std::uint64_t salt);

    /// More can be read from now on.
    void Add(const BlockRef& block);
    void Read(std::uint32_t track, std::uint64_t serial, BlobRecord& record) const;
    std::size_t Blocks() const;
    std::vector<BlockRef> Directory() const;

private:
    /// Some entries of a block; checked when one is taken out.
    struct IndexPart {
        std::uint64_t offset = 0; ///< In the segment; 0: nothing.
        Bytes entries;
    };

    BlockRef Find(std::uint32_t track, std::uint64_t serial) const;
    RecordEntry EntryOf(const BlockRef& block, std::uint64_t serial) const;
    [[noreturn]] void Fail(std::uint32_t track, std::uint64_t serial, const std::string& reason) const;

    const std::shared_ptr<const IFile> file_;
    const std::string path_;
    const std::uint64_t salt_;
    mutable std::mutex mutex_;
    std::map<std::uint32_t, std::vector<BlockRef>> blocks_; ///< Of each track, in the order of serials.
    mutable std::vector<IndexPart> parts_;                  ///< Each in the place that its offset tells.
};

/// A segment, as the tables in memory know it.
struct Segment {
    Segment(SegmentKey segmentKey, const std::string& segmentPath) : key(segmentKey), path(segmentPath) {}

    const SegmentKey key;
    const std::string path;
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

/// The segments that are open for reading; few, since descriptors and directories cost.
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
    void Drop(SegmentKey key);
    void DropAll();

private:
    struct Slot {
        SegmentKey key;
        std::shared_ptr<SegmentReader> reader;
        bool isPinned;
        std::size_t blocks;
    };
    std::shared_ptr<SegmentReader> Open(const Segment& segment) const;
    std::shared_ptr<SegmentReader> Find(SegmentKey key);
    void Insert(Slot slot);
    void Remove(std::list<Slot>::iterator slot);
    void Shrink();

    IFileSystem& files_;
    const StoreId store_;
    std::mutex mutex_;
    std::list<Slot> slots_; ///< Used last in front.
    std::map<SegmentKey, std::list<Slot>::iterator> places_;
    std::size_t open_ = 0;   ///< Of slots that are not pinned.
    std::size_t blocks_ = 0; ///< Likewise.
};

} // namespace drenn::multi_track_recorder
