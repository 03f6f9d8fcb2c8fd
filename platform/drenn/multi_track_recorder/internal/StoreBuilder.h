#pragma once

#include <functional>
#include <map>
#include <memory>

#include "drenn/multi_track_recorder/internal/StoreTables.h"
#include "drenn/multi_track_recorder/internal/recovery/Opening.h"

namespace drenn::multi_track_recorder {

/// Makes the tables in memory from what opening found. Recordings and tracks that are there already stay who they are,
/// and what they have that is not durable goes on behind what is there.
///
/// Threads:  one at a time, while the lanes are detached; others may ask the tables meanwhile.
/// Errors:   std::runtime_error that names the catalogue when it contradicts itself; the tables are incomplete then.
/// Lifetime: for one Build; what it is given outlives it.
class StoreBuilder {
public:
    StoreBuilder(StoreContext& context, StoreTables& tables, const OpenedStore& opened);

    void Build();

private:
    void BuildRecordings();
    void BuildTracks();
    void BuildSegments();
    void AddExtents();
    void Erase();
    void AddInfos();
    void TellDamage();
    /// Under `mutex` of the content; nothing happens when the catalogue does not have the track.
    void Change(std::uint32_t track, const std::function<void(TrackContent&)>& change) const;

    StoreContext& context_;
    StoreTables& tables_;
    const OpenedStore& opened_;
    const CatalogueContent& content_;
    std::map<std::uint32_t, std::shared_ptr<RecordingImpl>> recordings_;
    std::map<std::uint32_t, std::shared_ptr<TrackContent>> tracks_; ///< That the catalogue has.
    std::map<SegmentKey, std::shared_ptr<Segment>> segments_;
};

} // namespace drenn::multi_track_recorder
