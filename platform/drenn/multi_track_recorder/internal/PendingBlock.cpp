#include <algorithm>
#include <array>
#include <mutex>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/PendingBlock.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::size_t kFirstChunkBytes = 4096;
constexpr std::size_t kSecondChunkBytes = 1U << 16U;
constexpr std::size_t kLargeChunkBytes = 1U << 19U;
constexpr std::size_t kMostKept = 4;

/// Large chunks for the next block. Freed and allocated again with every sync, their pages would be unmapped and filled
/// with zeros each time: a tenth of the processor time of recording. Kept until the process ends.
///
/// Threads: any.
class ChunkPool {
public:
    using Chunk = std::unique_ptr<unsigned char[]>;

    static ChunkPool& Instance() {
        static auto* const pool = new ChunkPool; // Alive at exit: a store may be closed after that has begun.
        return *pool;
    }
    Chunk Take() {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (kept_.empty()) {
            return Chunk(new unsigned char[kLargeChunkBytes]);
        }
        Chunk chunk = std::move(kept_.back());
        kept_.pop_back();
        return chunk;
    }
    void GiveBack(Chunk chunk) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (kept_.size() < kMostKept) {
            kept_.push_back(std::move(chunk));
        }
    }

private:
    ChunkPool() { kept_.reserve(kMostKept); }

    std::mutex mutex_;
    std::vector<Chunk> kept_;
};

void PutU32(unsigned char* out, std::size_t value) {
    for (unsigned i = 0; i < 4; ++i) {
        out[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

} // namespace

std::uint32_t BlobsToRead(std::uint32_t blobs, int limit) {
    return limit < 0 ? blobs : std::min(blobs, static_cast<std::uint32_t>(limit));
}

void FillRecord(const unsigned char* payload, std::size_t bytes, std::uint32_t blobs, BlobRecord& record) {
    ByteReader lengths(payload, bytes);
    std::uint64_t offset = std::uint64_t{blobs} * 4;
    const std::uint32_t wanted = BlobsToRead(blobs, record.getBlobLimit());
    for (std::uint32_t i = 0; i < blobs; ++i) {
        const std::uint32_t length = lengths.U32();
        if (!lengths.Good() || offset + length > bytes) {
            break;
        }
        if (i < wanted) {
            record.add(Blob(Bytes(payload + offset, payload + offset + length)));
        }
        offset += length;
    }
    if (offset != bytes || record.blobs().size() != wanted) {
        throw std::runtime_error("the lengths of its blobs do not add up");
    }
}

PendingBlock::PendingBlock(std::uint32_t track, std::uint64_t firstSerial, std::uint32_t infoTag)
    : kind_(BlockKind::Records), track_(track), firstSerial_(firstSerial), infoTag_(infoTag) {}

PendingBlock::PendingBlock(BlockKind kind, std::uint32_t track, std::uint64_t firstSerial, Bytes body)
    : isOpen(false), kind_(kind), track_(track), firstSerial_(firstSerial), body_(std::move(body)) {}

PendingBlock::~PendingBlock() {
    for (Chunk& chunk : chunks_) {
        if (chunk.room == kLargeChunkBytes) {
            ChunkPool::Instance().GiveBack(std::move(chunk.bytes));
        }
    }
}

void PendingBlock::Append(const BlobRecord& record) {
    std::size_t bytes = record.blobs().size() * 4;
    for (const Blob& blob : record.blobs()) {
        bytes += blob.size();
    }
    records_.reserve(records_.size() + 1 > records_.capacity() ? 2 * records_.size() + 8 : 0);
    unsigned char* const payload = Take(bytes);
    unsigned char* next = payload + record.blobs().size() * 4;
    RecordEntry entry;
    for (std::size_t i = 0; i < record.blobs().size(); ++i) {
        const Blob& blob = record.blobs()[i];
        PutU32(payload + 4 * i, blob.size());
        std::copy_n(blob.data(), blob.size(), next);
        next += blob.size();
    }
    if (!record.blobs().empty()) {
        const Blob& first = record.blobs().front();
        entry.firstBlobBytes = static_cast<std::uint32_t>(first.size());
        std::copy_n(first.data(), std::min<std::size_t>(first.size(), kInlineBytes),
                    entry.firstBytes.begin());
    }
    entry.payloadOffset = static_cast<std::uint32_t>(payloadBytes_);
    entry.payloadBytes = static_cast<std::uint32_t>(bytes);
    entry.blobs = static_cast<std::uint32_t>(record.blobs().size());
    entry.payloadChecksum = ChecksumOf(payload, bytes, PayloadSeed(track_, EndSerial()));
    if (records_.empty()) {
        hint_ = HintOf(entry.firstBytes);
    } else {
        hint_.Add(HintOf(entry.firstBytes));
    }
    records_.push_back({entry, payload});
    payloadBytes_ += bytes;
}

unsigned char* PendingBlock::Take(std::size_t bytes) {
    if (chunks_.empty() || chunks_.back().room - chunks_.back().used < bytes) {
        constexpr std::array<std::size_t, 3> kUsual{kFirstChunkBytes, kSecondChunkBytes, kLargeChunkBytes};
        const std::size_t room = std::max(kUsual[std::min(chunks_.size(), kUsual.size() - 1)], bytes);
        // Not make_unique, which would fill it with zeros first.
        chunks_.push_back({room == kLargeChunkBytes
                               ? ChunkPool::Instance().Take()
                               : std::unique_ptr<unsigned char[]>(new unsigned char[room]),
                           0, room});
    }
    unsigned char* const taken = chunks_.back().bytes.get() + chunks_.back().used;
    chunks_.back().used += bytes;
    return taken;
}

void PendingBlock::Read(std::uint64_t serial, BlobRecord& record) const {
    const Record& found = records_[static_cast<std::size_t>(serial - firstSerial_)];
    FillRecord(found.payload, found.entry.payloadBytes, found.entry.blobs, record);
}

std::uint64_t PendingBlock::Length() const {
    return kBlockHeaderBytes + body_.size() + records_.size() * kEntryBytes + payloadBytes_;
}

void PendingBlock::Encode(std::uint32_t offset, std::uint64_t salt, std::uint64_t time, Bytes& out) const {
    Bytes index = body_;
    index.reserve(index.size() + records_.size() * kEntryBytes);
    for (std::size_t i = 0; i < records_.size(); ++i) {
        multi_track_recorder::Encode(records_[i].entry, salt, firstSerial_ + i, index);
    }
    BlockHeader header;
    header.kind = kind_;
    header.offset = offset;
    header.track = track_;
    header.count = Count();
    header.firstSerial = firstSerial_;
    header.time = time;
    header.infoTag = infoTag_;
    header.indexBytes = static_cast<std::uint32_t>(index.size());
    header.payloadBytes = static_cast<std::uint32_t>(payloadBytes_);
    header.indexChecksum = ChecksumOf(index.data(), index.size(), salt);
    multi_track_recorder::Encode(header, salt, out);
    ByteWriter(out).Raw(index.data(), index.size());
}

std::vector<PendingBlock::Span> PendingBlock::Payloads() const {
    std::vector<Span> spans;
    for (const Chunk& chunk : chunks_) {
        spans.push_back({chunk.bytes.get(), chunk.used});
    }
    return spans;
}

} // namespace drenn::multi_track_recorder
