#include "drenn/multi_track_recorder/internal/recovery/Erasures.h"

#include <algorithm>

namespace drenn::multi_track_recorder {

std::uint64_t SurvivorsOf(const ExtentRow& extent, const CatalogueContent& content) {
    const auto track = std::find_if(content.tracks.begin(), content.tracks.end(),
                                    [&](const TrackRow& row) { return row.id == extent.track; });
    if (track == content.tracks.end()) {
        return 0;
    }
    Survivors left;
    left.Append({extent.firstSerial, extent.firstSerial + extent.count});
    left.Erase({0, track->firstSerial});
    for (const ErasedRow& row : content.erased) {
        if (row.track == extent.track) {
            left.Erase(row.range);
        }
    }
    return left.Size();
}

ErasedRanges ErasedOf(const TrackRow& track, std::initializer_list<const std::vector<ErasedRow>*> lists) {
    ErasedRanges erased(track.firstSerial, {});
    for (const std::vector<ErasedRow>* list : lists) {
        for (const ErasedRow& row : *list) {
            if (row.track == track.id) {
                erased.Add(row.range);
            }
        }
    }
    return erased;
}

Survivors Without(const SerialRange& range, const ErasedRanges& erased) {
    Survivors left;
    left.Append(range);
    left.Erase({0, erased.FirstSerial()});
    for (const SerialRange& each : erased.Ranges()) {
        left.Erase(each);
    }
    return left;
}

} // namespace drenn::multi_track_recorder
