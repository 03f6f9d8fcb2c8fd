#pragma once

#include <optional>
#include <string>

#include "drenn/multi_track_recorder/internal/format/SegmentFormat.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

/// Goes through the blocks of a segment from its header on, and over what is damaged. What the device cannot read is
/// like damage.
///
/// Errors: none; see ReadError.
class SegmentWalker {
public:
    /// `end`: where the valid part ends at most.
    SegmentWalker(const IFile& file, std::uint64_t end);

    /// Nothing when the header is damaged, or the file is no segment.
    const std::optional<SegmentHeader>& Header() const { return header_; }
    /// From the header, or from the first block when the header is damaged. Nothing: no block can be told.
    const std::optional<std::uint64_t>& Salt() const { return salt_; }
    /// Of a segment that a later program wrote: none of its blocks is looked at.
    const std::optional<std::uint32_t>& LaterVersion() const { return laterVersion_; }
    /// The next block whose header checks, wherever it begins behind what does not.
    std::optional<BlockHeader> Find();
    /// Whether the rest of a block checks, too.
    bool BodyChecks(const BlockHeader& block) const;
    /// Of a block of records: whether this one can be read.
    bool RecordChecks(const BlockHeader& block, std::uint64_t serial) const;
    /// The end of the last block that was returned.
    std::uint64_t Offset() const { return offset_; }
    std::uint64_t End() const { return end_; }
    /// Of a block other than one of records.
    Bytes Body(const BlockHeader& block) const;
    /// The first error of the device; empty without one.
    const std::string& ReadError() const { return readError_; }

private:
    std::optional<BlockHeader> BlockAt(std::uint64_t offset) const;
    void FindSalt();
    bool PayloadChecks(const BlockHeader& block, const RecordEntry& entry, std::uint64_t serial) const;
    bool Read(std::uint64_t offset, Bytes& bytes) const;

    const IFile& file_;
    std::uint64_t end_ = 0;
    std::uint64_t offset_ = 0;
    std::optional<SegmentHeader> header_;
    std::optional<std::uint64_t> salt_;
    std::optional<std::uint32_t> laterVersion_;
    mutable std::string readError_;
};

} // namespace drenn::multi_track_recorder
