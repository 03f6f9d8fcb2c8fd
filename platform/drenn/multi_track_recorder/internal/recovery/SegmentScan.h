#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "drenn/multi_track_recorder/internal/format/SegmentFormat.h"
#include "drenn/multi_track_recorder/internal/io/Catalogue.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

/// A block that a scan found by its header.
struct ScannedBlock {
    BlockHeader header;
    bool isWhole = false;
    std::vector<SerialRange> readable; ///< Of a block of records; all of them if it is whole.
    Bytes body;                        ///< Of another kind; empty unless it is whole.
};

/// All that can be taken over from one segment's file: every block whose header checks, whatever is damaged before or
/// behind it, and of each block every record that checks. Opening, rebuilding and verifying go by the same scan, so
/// none of them loses what another one can read.
struct SegmentScan {
    enum class Owner {
        This,
        Other,  ///< The header is another store's, or another segment's.
        Later,  ///< A later program wrote it; nothing of it was looked at.
        Nobody, ///< Neither a header nor a block can be told.
    };
    Owner owner = Owner::Nobody;
    std::uint32_t laterVersion = 0;
    bool isHeaderDamaged = false;
    std::vector<ScannedBlock> blocks;
    std::uint64_t length = 0; ///< Behind the last block that something can be taken over from; 0 without one.
    std::uint64_t size = 0;
    std::uint64_t salt = 0;
    bool hasFooter = false;
    std::uint64_t firstBehind =
        0; ///< The first byte behind `length` that is not 0 and no footer's; size: none.
    std::vector<DamageRow> damage;   ///< What nothing can be taken over from.
    std::vector<std::string> faults; ///< The same in words, each with the file, and each record that is lost.

    /// Whether it can be shown that the file never held a record.
    bool HoldsNothing() const { return blocks.empty() && firstBehind == size && faults.empty(); }
};

/// The blocks of records of a scan, by track, then serial, with the first bytes of those whose index can be read.
std::vector<BlockRef> ListRecordBlocks(const IFile& file, const SegmentScan& scan);

/// Behind the last serial that was given to each track.
using NextSerials = std::map<std::uint32_t, std::uint64_t>;
/// A track, and the serial from which a text of it holds.
using InfoKey = std::pair<std::uint32_t, std::uint64_t>;

SegmentScan ScanSegment(const IFile& file, const std::string& path, const StoreId& store, SegmentKey key);
/// The records of a scan that are not there yet. Serials of records that are lost are not given again.
std::vector<ExtentRow> TakeRecords(const SegmentScan& scan, SegmentKey key, NextSerials& next);
/// Info texts by track, and by the serial from which they hold.
using InfoTexts = std::map<std::uint32_t, std::map<std::uint64_t, std::string>>;
/// Records whose info text is not among those that are known.
struct MissingInfo {
    std::uint32_t track;
    std::uint64_t from; ///< The first of these records.
    std::uint64_t end;
    std::uint32_t tag;
};
std::vector<MissingInfo> MissInfos(const SegmentScan& scan, const InfoTexts& known);

} // namespace drenn::multi_track_recorder
