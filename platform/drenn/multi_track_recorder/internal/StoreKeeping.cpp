#include "drenn/multi_track_recorder/internal/Store.h"
#include "quarn/core/Logger.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::uint32_t kKeepMs = 500;

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
            ring_->Keep();
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
    ring_->Detach();
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
    ring_->MakeRoom();
}

/// A store that there was no room to open for changes is opened again when there is.
void Store::RetryWithRoom() {
    if (GetState() == StoreState::ReadOnly && lacksRoom_ && ring_->HasRoomForReserve()) {
        LetGo();
        FindCard();
    }
}

} // namespace drenn::multi_track_recorder
