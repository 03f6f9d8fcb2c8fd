#include "drenn/multi_track_recorder/internal/recovery/SegmentScan.h"

#include <algorithm>
#include <limits>

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentWalker.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::size_t kWindowBytes = std::size_t{1} << 16U;
constexpr std::uint64_t kLargestFooter = 16ULL << 20U;

std::string Range(std::uint64_t first, std::uint64_t end) {
    return "bytes " + std::to_string(first) + " to " + std::to_string(end);
}

class Scanner {
public:
    Scanner(const IFile& file, const std::string& path, const StoreId& store, SegmentKey key)
        : file_(file), path_(path), key_(key), walker_(file, std::numeric_limits<std::uint64_t>::max()) {
        scan_.size = walker_.End();
        const auto& header = walker_.Header();
        if (walker_.LaterVersion()) {
            scan_.owner = SegmentScan::Owner::Later;
            scan_.laterVersion = *walker_.LaterVersion();
        } else if (header &&
                   (header->store != store || header->lane != key.lane || header->sequence != key.sequence)) {
            scan_.owner = SegmentScan::Owner::Other;
        } else if (walker_.Salt()) {
            scan_.owner = SegmentScan::Owner::This;
        }
    }

    SegmentScan Run() {
        scan_.salt = walker_.Salt().value_or(0);
        scan_.firstBehind = scan_.size;
        if (scan_.owner == SegmentScan::Owner::This) {
            WalkBlocks();
        }
        if (scan_.owner == SegmentScan::Owner::This || scan_.owner == SegmentScan::Owner::Nobody) {
            LookBehind();
        }
        if (!walker_.ReadError().empty()) {
            scan_.faults.push_back(walker_.ReadError());
        }
        return std::move(scan_);
    }

private:
    void WalkBlocks() {
        if (!walker_.Header()) {
            scan_.isHeaderDamaged = true;
            AddDamage(0, kSegmentHeaderBytes, "the header is damaged");
        }
        std::uint64_t expected = kSegmentHeaderBytes;
        while (const auto header = walker_.Find()) {
            ScannedBlock block{*header, walker_.BodyChecks(*header), {}, {}};
            if (block.isWhole && header->kind == BlockKind::Records) {
                block.readable.push_back({header->firstSerial, header->firstSerial + header->count});
            } else if (block.isWhole) {
                block.body = walker_.Body(*header);
            } else if (header->kind == BlockKind::Records) {
                FindReadable(block);
            }
            if (header->offset != expected) {
                AddDamage(expected, header->offset, Range(expected, header->offset) + " cannot be read");
            }
            if (!block.isWhole) {
                TellDamaged(block);
            }
            if (block.isWhole || !block.readable.empty()) {
                scan_.length = header->End();
            }
            expected = header->End();
            scan_.blocks.push_back(std::move(block));
        }
        // With nothing behind it that can be taken over, it is as a crash leaves the end of a file.
        for (DamageRow& row : scan_.damage) {
            if (row.end >= scan_.length && row.first >= kSegmentHeaderBytes) {
                row.kind = DamageRow::Kind::Unfinished;
            }
        }
    }

    void FindReadable(ScannedBlock& block) const {
        const std::uint64_t end = block.header.firstSerial + block.header.count;
        for (std::uint64_t serial = block.header.firstSerial; serial < end; ++serial) {
            if (!walker_.RecordChecks(block.header, serial)) {
                continue;
            }
            if (block.readable.empty() || block.readable.back().end != serial) {
                block.readable.push_back({serial, serial});
            }
            ++block.readable.back().end;
        }
    }

    void TellDamaged(const ScannedBlock& block) {
        const BlockHeader& header = block.header;
        const std::string where = "the block at byte " + std::to_string(header.offset) + " is damaged";
        AddDamage(header.offset, header.End(), where);
        std::uint64_t next = header.firstSerial;
        const auto tell = [&](std::uint64_t end) {
            if (next < end) {
                scan_.faults.push_back(path_ + ": records " + std::to_string(next) + " to " +
                                       std::to_string(end - 1) + " of track " + std::to_string(header.track) +
                                       " cannot be read");
            }
        };
        for (const SerialRange& range : block.readable) {
            tell(range.first);
            next = range.end;
        }
        tell(header.firstSerial + header.count);
    }

    void AddDamage(std::uint64_t first, std::uint64_t end, const std::string& what) {
        scan_.damage.push_back({key_, first, end, DamageRow::Kind::Damaged});
        scan_.faults.push_back(path_ + ": " + what);
    }

    /// Behind the last block there is a footer, nothing, or what was never finished.
    void LookBehind() {
        const std::uint64_t begin = scan_.blocks.empty() && scan_.owner == SegmentScan::Owner::This
                                        ? std::min<std::uint64_t>(kSegmentHeaderBytes, scan_.size)
                                        : scan_.length;
        const std::uint64_t behind = scan_.size - begin;
        if (!scan_.blocks.empty() && behind > 0 && behind <= kLargestFooter) {
            Bytes footer(static_cast<std::size_t>(behind));
            if (Read(begin, footer) && DecodeFooter(footer, *walker_.Salt())) {
                scan_.hasFooter = true;
                return;
            }
        }
        scan_.firstBehind = FirstNonZero(begin);
        const bool isKnown = std::any_of(scan_.damage.begin(), scan_.damage.end(),
                                         [&](const DamageRow& row) { return row.end > begin; });
        if (scan_.firstBehind < scan_.size && !isKnown) {
            AddDamage(begin, scan_.size,
                      Range(begin, scan_.size) + " at the end hold nothing that can be read");
            scan_.damage.back().kind = DamageRow::Kind::Unfinished;
        }
    }

    /// What cannot be read may be anything.
    std::uint64_t FirstNonZero(std::uint64_t from) {
        Bytes window;
        for (; from < scan_.size; from += window.size()) {
            window.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kWindowBytes, scan_.size - from)));
            const bool isRead = Read(from, window);
            const auto found =
                std::find_if(window.begin(), window.end(), [](unsigned char byte) { return byte != 0; });
            if (!isRead || found != window.end()) {
                return isRead ? from + static_cast<std::uint64_t>(found - window.begin()) : from;
            }
        }
        return scan_.size;
    }

    bool Read(std::uint64_t offset, Bytes& bytes) {
        try {
            return file_.Read(offset, bytes.data(), bytes.size()) == bytes.size();
        } catch (const FileError& error) {
            scan_.faults.emplace_back(error.what());
            return false;
        }
    }

    const IFile& file_;
    const std::string path_;
    const SegmentKey key_;
    SegmentWalker walker_;
    SegmentScan scan_;
};

} // namespace

std::vector<ExtentRow> TakeRecords(const SegmentScan& scan, SegmentKey key, NextSerials& next) {
    std::vector<ExtentRow> extents;
    std::map<std::uint32_t, std::size_t> last; // Of each track, in `extents`.
    for (const ScannedBlock& block : scan.blocks) {
        const std::uint32_t track = block.header.track;
        if (block.header.kind != BlockKind::Records) {
            continue;
        }
        std::uint64_t& free = next[track];
        for (const SerialRange& range : block.readable) {
            const std::uint64_t first = std::max(range.first, free);
            const auto before = last.find(track);
            if (first >= range.end) {
                continue; // A block is written again where a device failed after it.
            }
            if (before != last.end() &&
                extents[before->second].firstSerial + extents[before->second].count == first) {
                extents[before->second].count += range.end - first;
            } else {
                last[track] = extents.size();
                extents.push_back({track, key, first, range.end - first, std::nullopt});
            }
        }
        free = std::max(free, block.header.firstSerial + block.header.count);
    }
    return extents;
}

std::vector<BlockRef> ListRecordBlocks(const IFile& file, const SegmentScan& scan) {
    std::vector<BlockRef> blocks;
    for (const ScannedBlock& block : scan.blocks) {
        const BlockHeader& header = block.header;
        if (header.kind != BlockKind::Records) {
            continue;
        }
        blocks.push_back({header.track, header.count, header.firstSerial, header.offset});
        std::array<unsigned char, kEntryBytes> first{};
        file.Read(std::uint64_t{header.offset} + kBlockHeaderBytes, first.data(), first.size());
        if (const auto entry = DecodeEntry(first.data(), scan.salt, header.firstSerial)) {
            blocks.back().leading = entry->firstBytes;
        }
    }
    std::stable_sort(blocks.begin(), blocks.end(),
                     [](const BlockRef& a, const BlockRef& b) { return a.track < b.track; });
    return blocks;
}

std::vector<MissingInfo> MissInfos(const SegmentScan& scan, const InfoTexts& known) {
    std::vector<MissingInfo> missing;
    std::map<std::uint32_t, std::uint32_t> lastMissed; // Tag by track: one line for all blocks of a text.
    for (const ScannedBlock& block : scan.blocks) {
        const BlockHeader& header = block.header;
        if (header.kind != BlockKind::Records || header.infoTag == 0 || block.readable.empty()) {
            continue;
        }
        const auto texts = known.find(header.track);
        bool isKnown = false;
        if (texts != known.end()) {
            const auto behind = texts->second.upper_bound(header.firstSerial);
            isKnown = behind != texts->second.begin() &&
                      InfoTag(std::prev(behind)->first, std::prev(behind)->second) == header.infoTag;
        }
        std::uint32_t& last = lastMissed[header.track];
        if (!isKnown && last == header.infoTag) {
            const auto same = std::find_if(missing.rbegin(), missing.rend(), [&](const MissingInfo& each) {
                return each.track == header.track;
            });
            same->end = block.readable.back().end;
        } else if (!isKnown) {
            missing.push_back({header.track, header.firstSerial, block.readable.back().end, header.infoTag});
        }
        last = isKnown ? 0 : header.infoTag;
    }
    return missing;
}

SegmentScan ScanSegment(const IFile& file, const std::string& path, const StoreId& store, SegmentKey key) {
    return Scanner(file, path, store, key).Run();
}

} // namespace drenn::multi_track_recorder
