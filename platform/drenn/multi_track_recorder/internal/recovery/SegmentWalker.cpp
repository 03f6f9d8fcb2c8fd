#include <algorithm>

#include "drenn/multi_track_recorder/internal/recovery/SegmentWalker.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::uint64_t kWindowBytes = 1U << 16U;

} // namespace

SegmentWalker::SegmentWalker(const IFile& file, std::uint64_t end)
    : file_(file), end_(std::min(end, file.Size())) {
    Bytes bytes(kSegmentHeaderBytes);
    if (end_ >= kSegmentHeaderBytes && Read(0, bytes)) {
        header_ = DecodeSegmentHeader(bytes.data(), bytes.size());
        offset_ = kSegmentHeaderBytes;
    }
}

std::optional<BlockHeader> SegmentWalker::Next(bool checkBody) {
    unsigned char bytes[kBlockHeaderBytes];
    if (!header_ || offset_ + kBlockHeaderBytes > end_ ||
        file_.Read(offset_, bytes, kBlockHeaderBytes) != kBlockHeaderBytes) {
        return std::nullopt;
    }
    auto block =
        DecodeBlockHeader(bytes, kBlockHeaderBytes, static_cast<std::uint32_t>(offset_), header_->salt);
    if (!block || block->End() > end_ || (checkBody && !BodyChecks(*block))) {
        return std::nullopt;
    }
    offset_ = block->End();
    return block;
}

std::optional<BlockHeader> SegmentWalker::Find() {
    if (auto block = Next(false)) {
        return block;
    }
    Bytes window;
    for (std::uint64_t from = offset_ + 1; header_ && from + kBlockHeaderBytes <= end_;) {
        window.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kWindowBytes, end_ - from)));
        if (!Read(from, window)) {
            break;
        }
        const std::size_t places = window.size() - kBlockHeaderBytes + 1;
        for (std::size_t i = 0; i < places; ++i) {
            const auto block = DecodeBlockHeader(&window[i], kBlockHeaderBytes,
                                                 static_cast<std::uint32_t>(from + i), header_->salt);
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
    if (!Read(block.offset + kBlockHeaderBytes, body)) {
        body.clear();
    }
    return body;
}

bool SegmentWalker::BodyChecks(const BlockHeader& block) const {
    Bytes index(block.indexBytes);
    if (!Read(block.offset + kBlockHeaderBytes, index) ||
        ChecksumOf(index.data(), index.size(), header_->salt) != block.indexChecksum) {
        return false;
    }
    std::uint64_t next = 0; // Payloads follow one another.
    for (std::uint32_t i = 0; i < block.count; ++i) {
        const std::uint64_t serial = block.firstSerial + i;
        const auto entry = DecodeEntry(index.data() + std::size_t{i} * kEntryBytes, header_->salt, serial);
        if (!entry || entry->payloadOffset != next || !RecordChecks(block, *entry, serial)) {
            return false;
        }
        next += entry->payloadBytes;
    }
    return next == block.payloadBytes;
}

bool SegmentWalker::RecordChecks(const BlockHeader& block, const RecordEntry& entry,
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
    return file_.Read(offset, bytes.data(), bytes.size()) == bytes.size();
}

} // namespace drenn::multi_track_recorder
