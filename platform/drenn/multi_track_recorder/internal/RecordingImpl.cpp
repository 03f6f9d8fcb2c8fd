#include "drenn/multi_track_recorder/internal/RecordingImpl.h"

#include <boost/make_shared.hpp>
#include <stdexcept>

namespace drenn::multi_track_recorder {

RecordingImpl::RecordingImpl(StoreContext& context, const RecordingRow& row, std::function<void()> relieve)
    : context_(context),
      id_(row.id),
      relieve_(std::move(relieve)),
      lanes_{std::make_unique<Lane>(context, SegmentKey{LaneOf(id_, false), 1}, id_, false),
             std::make_unique<Lane>(context, SegmentKey{LaneOf(id_, true), 1}, id_, true)},
      info_(row.info) {
    for (const auto& lane : lanes_) {
        lane->SetRecordingInfo(info_);
    }
}

void RecordingImpl::RequireAttached() const {
    if (!detached_.empty()) {
        throw std::runtime_error("Recording " + std::to_string(id_) + ": " + detached_);
    }
}

std::string RecordingImpl::GetInfo() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    RequireAttached();
    return info_;
}

void RecordingImpl::SetInfo(const std::string& info) {
    const std::lock_guard<std::mutex> lock(mutex_);
    RequireAttached();
    if (info.size() > Track::kMaxInfoBytes) {
        throw std::runtime_error("Recording " + std::to_string(id_) + ": an info text of " +
                                 std::to_string(info.size()) + " bytes is too large; " +
                                 std::to_string(Track::kMaxInfoBytes) + " are allowed");
    }
    context_.Transact([&](Catalogue::Transaction& transaction) {
        transaction.SetRecordingInfo(id_, info);
        transaction.Commit();
    });
    info_ = info;
    for (const auto& lane : lanes_) {
        lane->SetRecordingInfo(info);
    }
}

std::list<boost::weak_ptr<Track>> RecordingImpl::GetTracks() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    RequireAttached();
    std::list<boost::weak_ptr<Track>> tracks;
    for (const Member& member : tracks_) {
        tracks.emplace_back(member.track);
    }
    return tracks;
}

boost::shared_ptr<Track> RecordingImpl::NewTrack(TrackClass trackClass) {
    const bool sparse = trackClass == TrackClass::Sparse;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        RequireAttached();
    }
    std::uint32_t id = 0;
    context_.Transact([&](Catalogue::Transaction& transaction) {
        id = transaction.AddTrack(id_, sparse);
        transaction.Commit();
    });
    Add(std::make_shared<TrackContent>(id, id_, sparse));
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const Member& member : tracks_) {
        if (member.impl->Content()->id == id) {
            return member.track;
        }
    }
    throw std::runtime_error("Track " + std::to_string(id) + " was erased at once");
}

void RecordingImpl::EraseTrack(std::uint32_t id) {
    std::shared_ptr<TrackImpl> found;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        RequireAttached();
        for (const Member& member : tracks_) {
            found = member.impl->Content()->id == id ? member.impl : found;
        }
    }
    if (found == nullptr) {
        throw std::out_of_range("Recording " + std::to_string(id_) + " has no track " + std::to_string(id));
    }
    found->EraseAll(); // Takes the track's lock, which comes before this recording's.
    const std::lock_guard<std::mutex> lock(mutex_);
    tracks_.remove_if([&](const Member& member) { return member.impl == found; });
}

void RecordingImpl::Add(const std::shared_ptr<TrackContent>& content) {
    Lane& lane = GetLane(content->sparse);
    lane.Add(content);
    auto impl = std::make_shared<TrackImpl>(context_, lane, content, relieve_);
    auto track = boost::make_shared<Track>(impl);
    const std::lock_guard<std::mutex> lock(mutex_);
    tracks_.push_back({std::move(impl), std::move(track)});
}

std::vector<std::shared_ptr<TrackImpl>> RecordingImpl::Tracks() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::shared_ptr<TrackImpl>> tracks;
    for (const Member& member : tracks_) {
        tracks.push_back(member.impl);
    }
    return tracks;
}

void RecordingImpl::Detach(const std::string& reason) {
    for (const auto& track : Tracks()) {
        track->Detach(reason);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    detached_ = reason;
}

} // namespace drenn::multi_track_recorder
