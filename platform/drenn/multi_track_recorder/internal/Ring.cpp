#include "drenn/multi_track_recorder/internal/Ring.h"

#include <algorithm>

#include "quarn/core/Logger.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::uint64_t kReserveBytes = 1ULL << 20U;
constexpr std::uint64_t kMostHeadroom = 8ULL << 20U;
constexpr std::uint64_t kMostMemory = 32ULL << 20U;
constexpr std::uint64_t kLargeCard = 256ULL << 20U;
constexpr std::size_t kMostRemoved = 16;

} // namespace

Ring::Ring(StoreContext& context, StoreTables& tables) : context_(context), tables_(tables) {}

void Ring::Attach() {
    hasAside_ = !ListAside(context_.files, context_.folders).empty();
    if (LookAtSpace().usable >= kLargeCard) {
        context_.GetCatalogue()->LengthenLog();
    }
}

void Ring::Detach() {
    erasing_.reset(); // What was erased counts when the catalogue knows it.
    removed_.clear(); // Opening looks after them.
}

void Ring::Tidy() {
    try {
        // A crash came before an erasure was done with them.
        tables_.ForEachLane([](Lane& lane) { lane.MarkDead(); });
    } catch (const FileError& error) {
        // What is there can be read; the keeper tries again.
        context_.logger.Warning("%s; removing erased segments has to wait", error.what());
    }
    KeepReserve();
}

void Ring::Keep() {
    FinishErasing();
    RemoveDead();
    MakeRoom();
    KeepReserve();
}

/// On a small card less is kept in memory: it has to find room at once.
Space Ring::LookAtSpace() {
    const Space space = context_.files.GetSpace(context_.options.storage);
    context_.mostMemory = static_cast<std::size_t>(std::min(kMostMemory, space.usable / 8));
    // A record must find room without erasing all that is there.
    context_.largestRecord = space.usable / 100 * context_.options.maxPercent / 4;
    return space;
}

void Ring::MakeRoom() {
    FinishErasing();
    for (;;) {
        const Space space = LookAtSpace();
        const std::uint64_t used = space.usable - space.free;
        const std::uint64_t limit = space.usable / 100 * context_.options.maxPercent;
        // Others append while this is written.
        const std::uint64_t coming = std::max<std::uint64_t>(context_.memory, context_.mostMemory) +
                                     std::min(kMostHeadroom, space.usable / 32);
        if (used + coming <= limit) {
            isOverfull_ = false;
            return;
        }
        if (RemoveAside()) {
            continue;
        }
        const std::shared_ptr<Segment> oldest = NextToErase();
        if (oldest == nullptr) {
            if (!isOverfull_) {
                context_.logger.Warning("%s is above %u percent, and nothing of the store is left to erase",
                                        context_.options.storage.c_str(), context_.options.maxPercent);
            }
            isOverfull_ = true;
            return;
        }
        EraseSegment(oldest);
        RemoveDead();
    }
}

bool Ring::EraseOldest(bool sparse) {
    FinishErasing();
    const std::shared_ptr<Segment> oldest = OldestSegment(sparse);
    if (oldest != nullptr) {
        EraseSegment(oldest);
        RemoveDead();
    }
    return oldest != nullptr;
}

/// What was set aside gives way before anything that can be read. False when there was nothing.
bool Ring::RemoveAside() {
    const std::vector<std::string> paths =
        hasAside_ ? ListAside(context_.files, context_.folders) : std::vector<std::string>();
    hasAside_ = !paths.empty();
    if (hasAside_) {
        context_.files.Remove(paths.front());
        context_.logger.Warning("%s had to give way", paths.front().c_str());
    }
    return hasAside_;
}

/// Bulk data gives way first, what is being written included; sparse data only when nothing else is left.
std::shared_ptr<Segment> Ring::NextToErase() {
    std::shared_ptr<Segment> oldest = OldestSegment(false);
    if (oldest == nullptr) {
        SealBulk();
        oldest = OldestSegment(false);
    }
    return oldest != nullptr ? oldest : OldestSegment(true);
}

/// The sealed segment that was begun first, of those that are next in their lanes.
std::shared_ptr<Segment> Ring::OldestSegment(bool sparse) const {
    std::shared_ptr<Segment> oldest;
    for (Lane* lane : tables_.Lanes()) {
        if (lane->IsSparse() != sparse) {
            continue;
        }
        for (const auto& segment : lane->SealedSegments()) {
            if (!segment->isRemoving) {
                oldest = oldest == nullptr || segment->time < oldest->time ? segment : oldest;
                break;
            }
        }
    }
    return oldest;
}

void Ring::SealBulk() {
    for (Lane* lane : tables_.Lanes()) {
        if (!lane->IsSparse()) {
            lane->Seal();
        }
    }
}

void Ring::EraseSegment(const std::shared_ptr<Segment>& segment) {
    Erasing erasing{segment, {}};
    for (const auto& recording : tables_.Recordings()) {
        for (const auto& track : recording->Tracks()) {
            if (const std::uint64_t end = track->Content()->EndIn(*segment); end > 0) {
                erasing.parts.push_back({track, end});
            }
        }
    }
    segment->isErasing = true;
    erasing_ = std::move(erasing);
    FinishErasing();
}

/// Each track forgets its records under its own lock; then one transaction takes them all. When it fails, the records stay
/// forgotten, and the next round goes on here.
void Ring::FinishErasing() {
    if (!erasing_) {
        return;
    }
    for (const Erasing::Part& part : erasing_->parts) {
        part.track->EraseOldest(part.end);
    }
    context_.Transact([&](Catalogue::Transaction& transaction) {
        std::vector<std::pair<TrackContent*, ErasedRanges>> erased;
        for (const auto& [track, end] : erasing_->parts) {
            TrackContent& content = *track->Content();
            const std::lock_guard<std::mutex> lock(content.mutex);
            if (!content.isErased) {
                ErasedRanges& ranges = erased.emplace_back(&content, content.erased).second;
                ranges.Add({0, end});
                transaction.SetErased(content.id, ranges.FirstSerial(), ranges.Ranges());
            }
        }
        transaction.SetRemoving(erasing_->segment->key);
        ForgetRemoved(transaction);
        transaction.Commit();
        erasing_->segment->isRemoving = true;
        removed_.clear();
        for (const auto& [content, ranges] : erased) {
            const std::lock_guard<std::mutex> lock(content->mutex);
            content->SetErased(ranges);
        }
    });
    erasing_.reset();
}

/// Removes the files of dead segments, in the order that lets a crash come at any point.
void Ring::RemoveDead() {
    std::vector<std::pair<Lane*, SegmentKey>> dead;
    for (Lane* lane : tables_.Lanes()) {
        lane->MarkDead();
        for (const auto& segment : lane->SealedSegments()) {
            if (segment->isRemoving) {
                dead.emplace_back(lane, segment->key);
            }
        }
    }
    if (dead.empty()) {
        return;
    }
    for (const auto& [lane, key] : dead) {
        context_.cache.Drop(key);
        context_.files.Remove(context_.folders.PathOf(key));
    }
    context_.files.SyncFolder(context_.options.storage);
    for (const auto& [lane, key] : dead) {
        lane->Forget(key);
        removed_.push_back(key);
    }
    if (removed_.size() >= kMostRemoved) {
        ForgetRemoved();
    }
}

void Ring::ForgetRemoved() {
    if (!removed_.empty()) {
        context_.Transact([this](Catalogue::Transaction& transaction) {
            ForgetRemoved(transaction);
            transaction.Commit();
        });
        removed_.clear();
    }
}

/// It can wait for the next transaction: after a crash, opening removes again what is not there any more.
void Ring::ForgetRemoved(Catalogue::Transaction& transaction) {
    for (const SegmentKey& key : removed_) {
        transaction.Forget(key);
    }
}

bool Ring::HasRoomForReserve() const {
    return context_.files.GetSpace(context_.options.database).free > 4 * kReserveBytes;
}

/// Room that is held back for the transactions that erase.
void Ring::KeepReserve() {
    const std::string path = context_.folders.Reserve();
    try {
        // One that is there may be from a process that was killed before it had any room.
        if ((!hasReserve_ || !context_.files.Exists(path)) && HasRoomForReserve()) {
            context_.files.Open(path, OpenMode::Create)->Reserve(kReserveBytes);
            hasReserve_ = true;
        }
    } catch (const FileError& error) {
        context_.logger.Warning("%s; there is no room held back", error.what());
    }
}

} // namespace drenn::multi_track_recorder
