#include <algorithm>

#include "drenn/multi_track_recorder/internal/TrackContent.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::uint64_t kFullBlock = 4ULL << 20U;

} // namespace

PendingBlock& TrackContent::OpenBlock() {
    if (!pending.empty() && pending.back()->isOpen && pending.back()->Length() >= kFullBlock) {
        pending.back()->isOpen = false;
    }
    if (pending.empty() || !pending.back()->isOpen) {
        pending.push_back(
            std::make_shared<PendingBlock>(id, nextSerial, infos.empty() ? 0 : infos.back().tag));
    }
    return *pending.back();
}

std::shared_ptr<const PendingBlock> TrackContent::FindPending(std::uint64_t serial) const {
    for (auto block = pending.rbegin(); block != pending.rend(); ++block) {
        if ((*block)->Kind() == BlockKind::Records && (*block)->FirstSerial() <= serial) {
            return serial < (*block)->EndSerial() ? *block : nullptr;
        }
    }
    return nullptr;
}

std::shared_ptr<Segment> TrackContent::FindSegment(std::uint64_t serial) const {
    const auto behind = std::upper_bound(
        extents.begin(), extents.end(), serial,
        [](std::uint64_t value, const Extent& extent) { return value < extent.range.first; });
    if (behind == extents.begin() || serial >= std::prev(behind)->range.end) {
        return nullptr;
    }
    return std::prev(behind)->segment;
}

Track::KnownRecords TrackContent::FindKnown(const std::function<bool(const LeadingBytes&)>& isBefore) const {
    // What was erased need not be in order with the rest: the clock may have been set back behind it.
    const auto isKnown = [this](const Extent& extent) {
        return extent.hint && survivors.Has(extent.range.first);
    };
    auto low = extents.begin(); // Known ones in front of here are before,
    auto high = extents.end();  // and known ones from here on are not.
    while (low != high) {
        const auto middle = low + (high - low) / 2;
        const auto known = std::find_if(middle, high, isKnown);
        if (known != high && isBefore(known->hint->leading)) {
            low = std::next(known);
        } else {
            high = middle;
        }
    }
    const auto toRecord = [this](const Extent& extent) {
        return Track::KnownRecord{static_cast<unsigned int>(survivors.IndexOf(extent.range.first)),
                                  extent.hint->leading};
    };
    Track::KnownRecords found;
    const auto before = std::find_if(std::make_reverse_iterator(low), extents.rend(), isKnown);
    if (before != extents.rend()) {
        found.before = toRecord(*before);
    }
    const auto behind = std::find_if(low, extents.end(), isKnown);
    if (behind != extents.end()) {
        found.behind = toRecord(*behind);
    }
    // Only where these are all between the two.
    if (found.before && found.behind && before.base() == behind &&
        survivors.CountIn(before->range) == before->range.end - before->range.first) {
        RecordsHint hint = *before->hint;
        hint.Add(HintOf(behind->hint->leading));
        found.step = hint.step == kUnknownStep ? std::nullopt : std::make_optional(hint.step);
    }
    return found;
}

std::uint64_t TrackContent::EndIn(const Segment& segment) const {
    const std::lock_guard<std::mutex> lock(mutex);
    std::uint64_t end = 0;
    for (const Extent& extent : extents) {
        end = extent.segment.get() == &segment ? extent.range.end : end;
    }
    return end;
}

std::size_t TrackContent::FindInfo(std::uint64_t serial) const {
    const auto behind =
        std::upper_bound(infos.begin(), infos.end(), serial,
                         [](std::uint64_t value, const InfoText& info) { return value < info.from; });
    return behind == infos.begin() ? infos.size() : static_cast<std::size_t>(behind - infos.begin()) - 1;
}

std::uint64_t TrackContent::FirstUnwritten() const {
    for (const auto& block : pending) {
        if (!block->isWritten && block->Kind() != BlockKind::Erased) {
            return block->FirstSerial();
        }
    }
    return nextSerial;
}

void TrackContent::AddExtent(const std::shared_ptr<Segment>& segment, SerialRange range,
                             const std::optional<RecordsHint>& hint) {
    segment->survivors += range.end - range.first;
    if (!extents.empty() && extents.back().segment == segment && extents.back().range.end == range.first) {
        extents.back().range.end = range.end;
        if (extents.back().hint && hint) {
            extents.back().hint->Add(*hint);
        } else if (extents.back().hint) {
            extents.back().hint->step = kUnknownStep;
        }
    } else {
        extents.push_back({range, segment, hint});
    }
}

void TrackContent::Forget(SerialRange range) {
    for (Extent& extent : extents) {
        const std::uint64_t first = std::max(range.first, extent.range.first);
        const std::uint64_t end = std::min(range.end, extent.range.end);
        if (first < end) {
            extent.segment->survivors -= survivors.CountIn({first, end});
        }
    }
    survivors.Erase(range);
    extents.erase(
        std::remove_if(extents.begin(), extents.end(),
                       [this](const Extent& extent) { return survivors.CountIn(extent.range) == 0; }),
        extents.end());
}

void TrackContent::SetErased(const ErasedRanges& ranges) {
    erased = ranges;
    // Texts that hold for nothing any more go, too; the last one holds for what is still to come.
    while (infos.size() > 1 && infos[1].from <= erased.FirstSerial()) {
        infos.erase(infos.begin());
    }
}

} // namespace drenn::multi_track_recorder
