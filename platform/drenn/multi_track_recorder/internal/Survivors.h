#pragma once

#include <cstdint>
#include <vector>

#include "drenn/multi_track_recorder/internal/format/SegmentFormat.h"

namespace drenn::multi_track_recorder {

/// Translates between the index of a record, which closes up over what was erased, and its serial.
class Survivors {
public:
    std::uint64_t Size() const { return runs_.empty() ? 0 : runs_.back().index + runs_.back().count; }
    /// `index` < Size().
    std::uint64_t SerialAt(std::uint64_t index) const;
    /// How many records before `serial` survive.
    std::uint64_t IndexOf(std::uint64_t serial) const;
    bool Has(std::uint64_t serial) const;
    std::uint64_t CountIn(SerialRange range) const { return IndexOf(range.end) - IndexOf(range.first); }

    /// Behind all others.
    void Append(SerialRange range);
    void Erase(SerialRange range);

    friend bool operator==(const Survivors& a, const Survivors& b) { return a.runs_ == b.runs_; }
    friend bool operator!=(const Survivors& a, const Survivors& b) { return !(a == b); }

private:
    struct Run {
        std::uint64_t index;
        std::uint64_t serial;
        std::uint64_t count;
        friend bool operator==(const Run& a, const Run& b) {
            return a.serial == b.serial && a.count == b.count;
        }
    };
    const Run* RunBefore(std::uint64_t serial) const;

    std::vector<Run> runs_;
};

/// What was erased of a track: everything before FirstSerial, and ranges behind it that neither overlap nor touch.
class ErasedRanges {
public:
    ErasedRanges() = default;
    ErasedRanges(std::uint64_t firstSerial, std::vector<SerialRange> ranges)
        : firstSerial_(firstSerial), ranges_(std::move(ranges)) {}

    void Add(SerialRange range);
    std::uint64_t FirstSerial() const { return firstSerial_; }
    const std::vector<SerialRange>& Ranges() const { return ranges_; }

private:
    std::uint64_t firstSerial_ = 0;
    std::vector<SerialRange> ranges_;
};

} // namespace drenn::multi_track_recorder
