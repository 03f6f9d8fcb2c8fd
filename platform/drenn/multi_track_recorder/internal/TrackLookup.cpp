// Searching a track by the first bytes of its records.

#include "drenn/multi_track_recorder/internal/TrackImpl.h"

namespace drenn::multi_track_recorder {
namespace {

Track::Leading LeadingOf(const RecordEntry& entry) {
    return {entry.firstBytes, entry.blobs == 0 ? 0 : entry.firstBlobBytes};
}

} // namespace

Track::Leading TrackImpl::GetLeading(std::uint32_t index) const {
    const Guard guard(*this);
    RequireAttached();
    context_.RequireCard();
    const Place place = PlaceAt(index);
    const RecordEntry entry = place.block != nullptr
                                  ? place.block->Entry(place.serial)
                                  : context_.cache.Get(*place.segment)->Entry(content_->id, place.serial);
    return LeadingOf(entry);
}

Track::KnownRecords TrackImpl::FindKnown(const std::function<bool(const LeadingBytes&)>& isBefore) const {
    const Guard guard(*this);
    RequireAttached();
    const std::lock_guard<std::mutex> lock(content_->mutex);
    return content_->FindKnown(isBefore);
}

Track::KnownRecords TrackImpl::FindNear(std::uint32_t index,
                                        const std::function<bool(const Track::Leading&)>& isBefore) const {
    const Guard guard(*this);
    RequireAttached();
    context_.RequireCard();
    const Place place = PlaceAt(index);
    if (place.block != nullptr) {
        return FindAmong({place.block->FirstSerial(), place.block->EndSerial()}, isBefore,
                         [&](std::uint64_t serial) { return LeadingOf(place.block->Entry(serial)); });
    }
    context_.LearnDirectories();
    const auto reader = context_.cache.Get(*place.segment);
    SegmentDirectory::Aim aim;
    {
        const std::lock_guard<std::mutex> lock(content_->mutex);
        // How long the first blob is only the record itself tells, which is read before it counts.
        aim = reader->Directory()->AimAt(content_->id, place.serial, content_->survivors,
                                         [&](const LeadingBytes& bytes) {
                                             return isBefore({bytes, kInlineBytes});
                                         });
    }
    if (aim.next) {
        reader->WillRead(content_->id, *aim.next);
    }
    const auto part = reader->PartOf(content_->id, aim.serial).part;
    const auto entryOf = [&](std::uint64_t serial) { return LeadingOf(reader->Entry(*part, serial)); };
    Track::KnownRecords found = FindAmong(part->range, isBefore, entryOf);
    if (!found.behind && aim.next) {
        // A pause ends a block, so what is looked for is likely to lie between the two.
        const Track::Leading leading = LeadingOf(reader->Entry(content_->id, *aim.next));
        const std::lock_guard<std::mutex> lock(content_->mutex);
        const std::uint64_t next = content_->survivors.IndexOf(*aim.next);
        const bool isAdjacent = found.before && found.before->index + 1 == next && !isBefore(leading);
        if (isAdjacent) {
            found.behind = {static_cast<unsigned int>(next), leading.bytes};
        }
    }
    return found;
}

/// Of the records in a range. `leadingOf` must not read.
Track::KnownRecords TrackImpl::FindAmong(
    SerialRange range, const std::function<bool(const Track::Leading&)>& isBefore,
    const std::function<Track::Leading(std::uint64_t)>& leadingOf) const {
    const std::lock_guard<std::mutex> lock(content_->mutex);
    Track::KnownRecords found;
    std::uint64_t low = content_->survivors.IndexOf(range.first);
    std::uint64_t high = content_->survivors.IndexOf(range.end);
    while (low != high) {
        const std::uint64_t middle = low + (high - low) / 2;
        const Track::Leading leading = leadingOf(content_->survivors.SerialAt(middle));
        const Track::KnownRecord known{static_cast<unsigned int>(middle), leading.bytes};
        if (isBefore(leading)) {
            found.before = known;
            low = middle + 1;
        } else {
            found.behind = known;
            high = middle;
        }
    }
    return found;
}

} // namespace drenn::multi_track_recorder
