#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "drenn/multi_track_recorder/internal/Survivors.h"
#include "drenn/multi_track_recorder/internal/io/Catalogue.h"

namespace drenn::multi_track_recorder {

/// How many records of an extent survive by what a catalogue says: none of a track that it does not have.
std::uint64_t SurvivorsOf(const ExtentRow& extent, const CatalogueContent& content);
/// What is erased of a track by all of these lists.
ErasedRanges ErasedOf(const TrackRow& track, std::initializer_list<const std::vector<ErasedRow>*> lists);

/// What is left of a range without what was erased.
Survivors Without(const SerialRange& range, const ErasedRanges& erased);

} // namespace drenn::multi_track_recorder
