#include <algorithm>

#include "drenn/multi_track_recorder/internal/Store.h"
#include "quarn/core/Logger.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::uint32_t kKeepMs = 500;
constexpr std::uint64_t kReserveBytes = 1ULL << 20U;
constexpr std::uint64_t kMostHeadroom = 8ULL << 20U;
constexpr std::uint64_t kMostMemory = 32ULL << 20U;
constexpr std::size_t kMostRemoved = 16;

} // namespace

void Store::RunKeeper() {
    while (WaitFor(kKeepMs, wakeKeeper_)) {
        try {
            Keep();
        } catch (const std::exception& error) {
            context_->logger.Error("%s", error.what());
        }
    }
}

void Store::Keep() {
    try {
        const std::lock_guard<std::mutex> lock(keeperMutex_);
        CheckCard();
        RetryWithRoom();
        if (GetState() == StoreState::Good) {
            FinishErasing();
            RemoveDead();
            MakeRoom();
            KeepReserve();
        }
    } catch (const std::exception&) {
        RaiseStates();
        throw;
    }
    RaiseStates();
}

void Store::RaiseStates() {
    std::vector<StoreState> states;
    {
        const std::lock_guard<std::mutex> lock(wakeMutex_);
        states.swap(states_);
    }
    for (const StoreState state : states) {
        try {
            stateSignal_(state);
        } catch (const std::exception& error) {
            context_->logger.Error("A slot of the state signal failed: %s", error.what());
        }
    }
}

void Store::CheckCard() {
    if (GetState() == StoreState::NoCard || GetState() == StoreState::OtherCard) {
        FindCard();
        return;
    }
    StoreState state = StoreState::Good;
    try {
        const bool isSameDevice = files_.DeviceOf(options_.storage) == device_;
        if (isSameDevice && !hasIdentity_) {
            return; // Nothing else can be compared.
        }
        if (!isSameDevice || !files_.Exists(context_->folders.Identity())) {
            state = StoreState::NoCard;
        } else if (ReadIdentity(files_, context_->folders.Identity()) != context_->id) {
            state = StoreState::OtherCard;
        }
    } catch (const std::exception&) {
        state = StoreState::NoCard;
    }
    if (state != StoreState::Good) {
        LoseCard(state);
    }
}

/// Closes every file, so that what is left of the card can be unmounted.
void Store::LoseCard(StoreState state) {
    context_->logger.Warning("The card of %s is away", options_.storage.c_str());
    context_->SetState(state);
    LetGo();
}

void Store::LetGo() {
    for (Lane* lane : tables_->Lanes()) {
        lane->Detach();
    }
    context_->cache.DropAll();
    context_->SetCatalogue(nullptr);
    erasing_.reset(); // What was erased counts when the catalogue knows it.
    removed_.clear(); // Opening looks after them.
    lock_ = {};
}

void Store::FindCard() {
    try {
        if (!files_.Exists(context_->folders.Identity())) {
            context_->SetState(StoreState::NoCard);
            return;
        }
        if (ReadIdentity(files_, context_->folders.Identity()) != context_->id) {
            context_->SetState(StoreState::OtherCard);
            return;
        }
        OpenedStore opened = opener_.Open();
        TakeOver(opened);
        context_->logger.Information("The card of %s is back", options_.storage.c_str());
        findError_.clear();
        context_->SetState(opened.readOnly.empty() ? StoreState::Good : StoreState::ReadOnly);
    } catch (const std::exception& error) {
        LetGo();                          // So that it can be unmounted and looked after.
        if (error.what() != findError_) { // Once for each reason; it is tried again all the time.
            findError_ = error.what();
            context_->logger.Warning("The card of %s cannot be used: %s", options_.storage.c_str(),
                                     error.what());
        }
    }
}

void Store::PrepareRoom() {
    // Making room takes locks of tracks, one at a time; who holds one leaves it to the keeper.
    if (TrackImpl::LocksHeld() > 0) {
        Wake(wakeKeeper_);
        return;
    }
    const std::lock_guard<std::mutex> lock(keeperMutex_);
    MakeRoom();
}

/// On a small card less is kept in memory: it has to find room at once.
Space Store::LookAtSpace() {
    const Space space = files_.GetSpace(options_.storage);
    context_->mostMemory = static_cast<std::size_t>(std::min(kMostMemory, space.usable / 8));
    // A record must find room without erasing all that is there.
    context_->largestRecord = space.usable / 100 * options_.maxPercent / 4;
    return space;
}

/// Erases the oldest segments until the used share, with what is about to come, is below the limit.
void Store::MakeRoom() {
    FinishErasing();
    for (;;) {
        const Space space = LookAtSpace();
        const std::uint64_t used = space.usable - space.free;
        const std::uint64_t limit = space.usable / 100 * options_.maxPercent;
        // Others append while this is written.
        const std::uint64_t coming = std::max<std::uint64_t>(context_->memory, context_->mostMemory) +
                                     std::min(kMostHeadroom, space.usable / 32);
        if (used + coming <= limit) {
            isOverfull_ = false;
            return;
        }
        if (RemoveAside()) {
            continue;
        }
        std::shared_ptr<Segment> oldest = OldestSegment(false);
        if (oldest == nullptr && SealBulk()) {
            oldest = OldestSegment(false);
        }
        if (oldest == nullptr) {
            oldest = OldestSegment(true);
        }
        if (oldest == nullptr) {
            if (!isOverfull_) {
                context_->logger.Warning("%s is above %u percent, and nothing of the store is left to erase",
                                         options_.storage.c_str(), options_.maxPercent);
            }
            isOverfull_ = true;
            return;
        }
        EraseSegment(oldest);
        RemoveDead();
    }
}

/// What was set aside gives way before anything that can be read. False when there was nothing.
bool Store::RemoveAside() {
    const std::vector<std::string> paths =
        hasAside_ ? ListAside(files_, context_->folders) : std::vector<std::string>();
    hasAside_ = !paths.empty();
    if (hasAside_) {
        files_.Remove(paths.front());
        context_->logger.Warning("%s had to give way", paths.front().c_str());
    }
    return hasAside_;
}

/// A store that there was no room to open for changes is opened again when there is.
void Store::RetryWithRoom() {
    if (GetState() == StoreState::ReadOnly && lacksRoom_ &&
        files_.GetSpace(options_.database).free > 4 * kReserveBytes) {
        LetGo();
        FindCard();
    }
}

/// The sealed segment that was begun first, of those that are next in their lanes.
std::shared_ptr<Segment> Store::OldestSegment(bool sparse) {
    std::shared_ptr<Segment> oldest;
    for (Lane* lane : tables_->Lanes()) {
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

/// Whether there is a sealed segment of bulk data after having sealed what was being written.
bool Store::SealBulk() {
    for (Lane* lane : tables_->Lanes()) {
        if (!lane->IsSparse()) {
            lane->Seal();
        }
    }
    return OldestSegment(false) != nullptr;
}

void Store::EraseSegment(const std::shared_ptr<Segment>& segment) {
    Erasing erasing{segment, {}};
    for (const auto& recording : tables_->Recordings()) {
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
void Store::FinishErasing() {
    if (!erasing_) {
        return;
    }
    for (const Erasing::Part& part : erasing_->parts) {
        part.track->EraseOldest(part.end);
    }
    context_->Transact([&](Catalogue::Transaction& transaction) {
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
void Store::RemoveDead() {
    std::vector<std::pair<Lane*, SegmentKey>> dead;
    for (Lane* lane : tables_->Lanes()) {
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
        context_->cache.Drop(key);
        files_.Remove(context_->folders.PathOf(key));
    }
    files_.SyncFolder(options_.storage);
    for (const auto& [lane, key] : dead) {
        lane->Forget(key);
        removed_.push_back(key);
    }
    if (removed_.size() >= kMostRemoved) {
        ForgetRemoved();
    }
}

void Store::ForgetRemoved() {
    if (!removed_.empty()) {
        context_->Transact([this](Catalogue::Transaction& transaction) {
            ForgetRemoved(transaction);
            transaction.Commit();
        });
        removed_.clear();
    }
}

/// It can wait for the next transaction: after a crash, opening removes again what is not there any more.
void Store::ForgetRemoved(Catalogue::Transaction& transaction) {
    for (const SegmentKey& key : removed_) {
        transaction.Forget(key);
    }
}

/// Room that is held back for the transactions that erase.
void Store::KeepReserve() {
    const std::string path = context_->folders.Reserve();
    try {
        // One that is there may be from a process that was killed before it had any room.
        if ((!hasReserve_ || !files_.Exists(path)) &&
            files_.GetSpace(options_.database).free > 4 * kReserveBytes) {
            files_.Open(path, OpenMode::Create)->Reserve(kReserveBytes);
            hasReserve_ = true;
        }
    } catch (const FileError& error) {
        context_->logger.Warning("%s; there is no room held back", error.what());
    }
}

} // namespace drenn::multi_track_recorder
