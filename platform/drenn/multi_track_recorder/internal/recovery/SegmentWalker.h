#pragma once

#include <optional>
#include <string>

#include "drenn/multi_track_recorder/internal/format/SegmentFormat.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

/// Goes through the blocks of a segment from its header on.
///
/// Errors: FileError when the file cannot be read. What does not check is the end.
class SegmentWalker {
public:
    /// `end`: where the valid part ends at most.
    SegmentWalker(const IFile& file, std::uint64_t end);

    /// Nothing when the file is not a segment.
    const std::optional<SegmentHeader>& Header() const { return header_; }
    /// The next block whose header checks, and its body too if `checkBody`; nothing at the first that does not.
    std::optional<BlockHeader> Next(bool checkBody);
    /// The next block whose header checks, wherever it begins behind what does not.
    std::optional<BlockHeader> Find();
    /// Whether the rest of a block does.
    bool BodyChecks(const BlockHeader& block) const;
    /// The end of the last block that was returned.
    std::uint64_t Offset() const { return offset_; }
    /// Of a block other than one of records.
    Bytes Body(const BlockHeader& block) const;

private:
    bool RecordChecks(const BlockHeader& block, const RecordEntry& entry, std::uint64_t serial) const;
    bool Read(std::uint64_t offset, Bytes& bytes) const;

    const IFile& file_;
    const std::uint64_t end_;
    std::uint64_t offset_ = 0;
    std::optional<SegmentHeader> header_;
};

} // namespace drenn::multi_track_recorder
