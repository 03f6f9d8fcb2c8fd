#include "drenn/multi_track_recorder/internal/StoreTables.h"

#include <boost/make_shared.hpp>

namespace drenn::multi_track_recorder {

StoreTables::StoreTables(StoreContext& context, std::function<void()> relieve)
    : context_(context), relieve_(std::move(relieve)) {}

StoreTables::Member StoreTables::Add(const RecordingRow& row) {
    auto impl = std::make_shared<RecordingImpl>(context_, row, relieve_);
    Member member{impl, boost::make_shared<Recording>(impl)};
    const std::lock_guard<std::mutex> lock(mutex_);
    recordings_.push_back(member);
    return member;
}

std::list<boost::weak_ptr<Recording>> StoreTables::GetRecordings() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::list<boost::weak_ptr<Recording>> recordings;
    for (const Member& member : recordings_) {
        recordings.emplace_back(member.recording);
    }
    return recordings;
}

std::vector<std::shared_ptr<RecordingImpl>> StoreTables::Recordings() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::shared_ptr<RecordingImpl>> recordings;
    for (const Member& member : recordings_) {
        recordings.push_back(member.impl);
    }
    return recordings;
}

std::vector<Lane*> StoreTables::Lanes() const {
    std::vector<Lane*> lanes;
    for (const auto& recording : Recordings()) {
        lanes.push_back(&recording->GetLane(false));
        lanes.push_back(&recording->GetLane(true));
    }
    return lanes;
}

void StoreTables::ForEachLane(const std::function<void(Lane&)>& action) const {
    std::exception_ptr failure;
    for (Lane* lane : Lanes()) {
        try {
            action(*lane);
        } catch (const std::exception&) {
            failure = std::current_exception();
        }
    }
    if (failure != nullptr) {
        std::rethrow_exception(failure);
    }
}

void StoreTables::SetDamage(std::vector<std::string> damage) {
    const std::lock_guard<std::mutex> lock(mutex_);
    damage_ = std::move(damage);
}

std::vector<std::string> StoreTables::GetDamage() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return damage_;
}

} // namespace drenn::multi_track_recorder
