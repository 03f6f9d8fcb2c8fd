#pragma once

#include <array>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/Recording.h"
#include "drenn/multi_track_recorder/internal/Lane.h"
#include "drenn/multi_track_recorder/internal/TrackImpl.h"

namespace drenn::multi_track_recorder {

/// What a Recording stands for: its tracks and its two lanes.
///
/// Threads: any.
class RecordingImpl {
public:
    RecordingImpl(StoreContext& context, const RecordingRow& row, std::function<void()> relieve);

    std::uint32_t Id() const { return id_; }
    std::string GetInfo() const;
    void SetInfo(const std::string& info);
    std::list<boost::weak_ptr<Track>> GetTracks() const;
    boost::shared_ptr<Track> NewTrack(TrackClass trackClass);
    void EraseTrack(std::uint32_t id);

    /// A track that the catalogue knows.
    void Add(const std::shared_ptr<TrackContent>& content);
    Lane& GetLane(bool sparse) { return *lanes_[sparse ? 1 : 0]; }
    std::vector<std::shared_ptr<TrackImpl>> Tracks() const;
    /// The store is gone.
    void Detach(const std::string& reason);

private:
    struct Member {
        std::shared_ptr<TrackImpl> impl;
        boost::shared_ptr<Track> track;
    };
    void RequireAttached() const;

    StoreContext& context_;
    const std::uint32_t id_;
    const std::function<void()> relieve_;
    const std::array<std::unique_ptr<Lane>, 2> lanes_; ///< Bulk, sparse.

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::string info_;
    std::list<Member> tracks_;
    std::string detached_;
};

} // namespace drenn::multi_track_recorder
