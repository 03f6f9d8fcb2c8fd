#include "drenn/multi_track_recorder/internal/SegmentWriter.h"

#include <random>

namespace drenn::multi_track_recorder {
namespace {

// Shorter payloads are gathered into one write; longer ones are written from where they are.
constexpr std::size_t kGatheredBytes = 1U << 16U;

std::uint64_t RandomSalt() {
    std::random_device device;
    return (std::uint64_t{device()} << 32U) | device();
}

/// Writes one thing after the other, small ones together.
class GatheringWriter {
public:
    GatheringWriter(IFile& file, std::uint64_t offset) : file_(file), offset_(offset) {}

    Bytes& Gathered() { return gathered_; }
    std::uint64_t Offset() const { return offset_ + gathered_.size(); }
    void Add(PendingBlock::Span span) {
        if (span.length <= kGatheredBytes) {
            ByteWriter(gathered_).Raw(span.bytes, span.length);
            return;
        }
        Flush();
        file_.Write(offset_, span.bytes, span.length);
        offset_ += span.length;
    }
    void Flush() {
        if (!gathered_.empty()) {
            file_.Write(offset_, gathered_.data(), gathered_.size());
            offset_ += gathered_.size();
            gathered_.clear();
        }
    }

private:
    IFile& file_;
    std::uint64_t offset_;
    Bytes gathered_;
};

} // namespace

SegmentWriter::SegmentWriter(StoreContext& context, SegmentKey key)
    : context_(context),
      segment_(std::make_shared<Segment>(key, context.folders.PathOf(key))),
      file_(context.files.Open(segment_->path, OpenMode::CreateNew)),
      header_{key.lane, key.sequence, context.id, RandomSalt()},
      directory_(std::make_shared<SegmentDirectory>(header_.salt, true)),
      stagedEnd_(kSegmentHeaderBytes) {
    segment_->salt = header_.salt;
    context_.cache.Pin(*segment_, std::make_shared<SegmentReader>(file_, segment_->path, directory_));
}

bool SegmentWriter::HasRoomFor(std::uint64_t length) const {
    const bool isFirst = end_ == 0 && staged_.size() <= 1; // Behind the state that every segment begins with.
    return isFirst || stagedEnd_ + length <= context_.options.segmentBytes;
}

bool SegmentWriter::IsFullFor(std::uint64_t length) const {
    return !NeedsSync() && end_ >= context_.options.segmentBytes / 2 && !HasRoomFor(length);
}

void SegmentWriter::Stage(const std::shared_ptr<PendingBlock>& block) {
    staged_.push_back({block, static_cast<std::uint32_t>(stagedEnd_)});
    stagedEnd_ += block->Length();
}

void SegmentWriter::Write() {
    try {
        WriteStaged();
    } catch (const FileError&) {
        staged_.clear();
        stagedEnd_ = end_ == 0 ? kSegmentHeaderBytes : end_;
        throw;
    }
    for (const Placed& placed : staged_) {
        placed.block->isWritten = true;
        unsynced_.push_back(placed);
    }
    staged_.clear();
    end_ = stagedEnd_;
}

void SegmentWriter::WriteStaged() {
    GatheringWriter writer(*file_, end_);
    if (end_ == 0) {
        writer.Gathered() = Encode(header_);
    }
    for (const Placed& placed : staged_) {
        const std::uint64_t time = context_.NextTime();
        if (segment_->time == 0) {
            segment_->time = time;
        }
        placed.block->Encode(placed.offset, header_.salt, time, writer.Gathered());
        for (const PendingBlock::Span& span : placed.block->Payloads()) {
            writer.Add(span);
        }
    }
    writer.Flush();
}

std::vector<SegmentWriter::Placed> SegmentWriter::Sync() {
    if (syncedEnd_ == 0) {
        context_.files.Together(
            {[this] { file_->Sync(); }, [this] { context_.files.SyncFolder(context_.options.storage); }});
    } else {
        file_->Sync();
    }
    syncedEnd_ = end_;
    return std::move(unsynced_);
}

void SegmentWriter::WriteOut() {
    file_->WriteOut();
}

void SegmentWriter::Break() {
    isBroken_ = true;
    for (const Placed& placed : unsynced_) {
        placed.block->isWritten = false;
    }
    unsynced_.clear();
}

void SegmentWriter::WriteFooter() {
    const Bytes footer = EncodeFooter(directory_->List(), header_.salt);
    if (file_->Size() > end_) {
        file_->Truncate(end_); // Of a write that found no room.
    }
    file_->Write(end_, footer.data(), footer.size());
}

} // namespace drenn::multi_track_recorder
