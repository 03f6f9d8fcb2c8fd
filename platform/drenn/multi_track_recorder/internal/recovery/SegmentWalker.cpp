#include "drenn/multi_track_recorder/internal/recovery/SegmentWalker.h"

#include <algorithm>
#include <limits>

#include "drenn/multi_track_recorder/internal/io/FileError.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::uint64_t kWindowBytes = 1U << 16U;
constexpr std::uint64_t kPageBytes = 4096; // What a device that cannot read loses at least.

} // namespace

SegmentWalker::SegmentWalker(const IFile& file, std::uint64_t end) : file_(file) {
    try {
        // A block's offset has 32 bits.
        end_ = std::min({end, file.Size(), std::uint64_t{std::numeric_limits<std::uint32_t>::max()}});
    } catch (const FileError& error) {
        readError_ = error.what();
    }
    Bytes bytes(kSegmentHeaderBytes);
    if (end_ < kSegmentHeaderBytes) {
        return;
    }
    offset_ = kSegmentHeaderBytes;
    if (Read(0, bytes)) {
        header_ = DecodeSegmentHeader(bytes.data(), bytes.size());
        laterVersion_ = LaterVersionOf(bytes.data(), bytes.size());
    }
    if (header_) {
        salt_ = header_->salt;
    } else if (!laterVersion_) {
        FindSalt();
    }
}

/// Every segment begins with a block, and every block has the salt.
void SegmentWalker::FindSalt() {
    Bytes bytes(kBlockHeaderBytes);
    if (end_ >= kSegmentHeaderBytes + kBlockHeaderBytes && Read(kSegmentHeaderBytes, bytes)) {
        const std::uint64_t salt = SaltOfBlock(bytes.data());
        if (DecodeBlockHeader(bytes.data(), bytes.size(), kSegmentHeaderBytes, salt)) {
            salt_ = salt;
        }
    }
}

std::optional<BlockHeader> SegmentWalker::BlockAt(std::uint64_t offset) const {
    Bytes bytes(kBlockHeaderBytes);
    if (offset + kBlockHeaderBytes > end_ || !Read(offset, bytes)) {
        return std::nullopt;
    }
    auto block = DecodeBlockHeader(bytes.data(), bytes.size(), static_cast<std::uint32_t>(offset), *salt_);
    return block && block->End() <= end_ ? block : std::nullopt;
}

std::optional<BlockHeader> SegmentWalker::Find() {
    if (!salt_) {
        return std::nullopt;
    }
    if (auto block = BlockAt(offset_)) {
        offset_ = block->End();
        return block;
    }
    Bytes window;
    for (std::uint64_t from = offset_ + 1; from + kBlockHeaderBytes <= end_;) {
        window.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kWindowBytes, end_ - from)));
        if (!Read(from, window)) {
            window.resize(std::min<std::size_t>(window.size(), kPageBytes));
            if (!Read(from, window)) {
                from += kPageBytes - from % kPageBytes;
                continue;
            }
        }
        if (window.size() < kBlockHeaderBytes) {
            break;
        }
        const std::size_t places = window.size() - kBlockHeaderBytes + 1;
        for (std::size_t i = 0; i < places; ++i) {
            const auto block = DecodeBlockHeader(&window[i], kBlockHeaderBytes,
                                                 static_cast<std::uint32_t>(from + i), *salt_);
            if (block && block->End() <= end_) {
                offset_ = block->End();
                return block;
            }
        }
        from += places;
    }
    return std::nullopt;
}

Bytes SegmentWalker::Body(const BlockHeader& block) const {
    Bytes body(block.indexBytes);
    if (!Read(std::uint64_t{block.offset} + kBlockHeaderBytes, body)) {
        body.clear();
    }
    return body;
}

bool SegmentWalker::BodyChecks(const BlockHeader& block) const {
    Bytes index(block.indexBytes);
    if (!Read(std::uint64_t{block.offset} + kBlockHeaderBytes, index) ||
        ChecksumOf(index.data(), index.size(), *salt_) != block.indexChecksum) {
        return false;
    }
    std::uint64_t next = 0; // Payloads follow one another.
    for (std::uint32_t i = 0; i < block.count; ++i) {
        const std::uint64_t serial = block.firstSerial + i;
        const auto entry = DecodeEntry(index.data() + std::size_t{i} * kEntryBytes, *salt_, serial);
        if (!entry || entry->payloadOffset != next || !PayloadChecks(block, *entry, serial)) {
            return false;
        }
        next += entry->payloadBytes;
    }
    return next == block.payloadBytes;
}

bool SegmentWalker::RecordChecks(const BlockHeader& block, std::uint64_t serial) const {
    Bytes bytes(kEntryBytes);
    const std::uint64_t place = serial - block.firstSerial;
    if (!Read(std::uint64_t{block.offset} + kBlockHeaderBytes + place * kEntryBytes, bytes)) {
        return false;
    }
    const auto entry = DecodeEntry(bytes.data(), *salt_, serial);
    return entry && PayloadChecks(block, *entry, serial);
}

bool SegmentWalker::PayloadChecks(const BlockHeader& block, const RecordEntry& entry,
                                  std::uint64_t serial) const {
    if (std::uint64_t{entry.payloadOffset} + entry.payloadBytes > block.payloadBytes) {
        return false;
    }
    Bytes payload(entry.payloadBytes);
    return Read(block.PayloadOffset() + entry.payloadOffset, payload) &&
           ChecksumOf(payload.data(), payload.size(), PayloadSeed(block.track, serial)) ==
               entry.payloadChecksum;
}

bool SegmentWalker::Read(std::uint64_t offset, Bytes& bytes) const {
    try {
        return file_.Read(offset, bytes.data(), bytes.size()) == bytes.size();
    } catch (const FileError& error) {
        readError_ = readError_.empty() ? error.what() : readError_;
        return false;
    }
}

} // namespace drenn::multi_track_recorder
