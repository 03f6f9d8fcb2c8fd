#include "drenn/multi_track_recorder/internal/CardWatch.h"

#include "drenn/multi_track_recorder/internal/StoreBuilder.h"
#include "quarn/core/Logger.h"

namespace drenn::multi_track_recorder {

CardWatch::CardWatch(StoreContext& context, StoreTables& tables, Ring& ring, StoreOpener& opener)
    : context_(context), tables_(tables), ring_(ring), opener_(opener) {}

CardWatch::~CardWatch() {
    LetGo();
}

void CardWatch::TakeOver(OpenedStore& opened) {
    device_ = context_.files.DeviceOf(context_.options.storage);
    lock_ = std::move(opened.lock);
    lacksRoom_ = opened.lacksRoom;
    hasIdentity_ = opened.hasIdentity;
    context_.SetCatalogue(opened.catalogue);
    StoreBuilder(context_, tables_, opened).Build();
    ring_.Attach();
}

void CardWatch::Keep() {
    CheckCard();
    RetryWithRoom();
}

void CardWatch::CheckCard() {
    if (context_.GetState() == StoreState::NoCard || context_.GetState() == StoreState::OtherCard) {
        FindCard();
        return;
    }
    StoreState state = StoreState::Good;
    try {
        const bool isSameDevice = context_.files.DeviceOf(context_.options.storage) == device_;
        if (isSameDevice && !hasIdentity_) {
            return; // Nothing else can be compared.
        }
        if (!isSameDevice || !context_.files.Exists(context_.folders.Identity())) {
            state = StoreState::NoCard;
        } else if (ReadIdentity(context_.files, context_.folders.Identity()) != context_.id) {
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
void CardWatch::LoseCard(StoreState state) {
    context_.logger.Warning("The card of %s is away", context_.options.storage.c_str());
    context_.SetState(state);
    LetGo();
}

void CardWatch::LetGo() {
    for (Lane* lane : tables_.Lanes()) {
        lane->Detach();
    }
    context_.cache.DropAll();
    context_.SetCatalogue(nullptr);
    ring_.Detach();
    lock_ = {}; // Last: closing the catalogue still writes to it.
}

void CardWatch::FindCard() {
    try {
        if (!context_.files.Exists(context_.folders.Identity())) {
            context_.SetState(StoreState::NoCard);
            return;
        }
        if (ReadIdentity(context_.files, context_.folders.Identity()) != context_.id) {
            context_.SetState(StoreState::OtherCard);
            return;
        }
        OpenedStore opened = opener_.Open();
        TakeOver(opened);
        context_.logger.Information("The card of %s is back", context_.options.storage.c_str());
        findError_.clear();
        context_.SetState(opened.readOnly.empty() && !context_.options.readOnly ? StoreState::Good
                                                                                : StoreState::ReadOnly);
    } catch (const std::exception& error) {
        LetGo();                          // So that it can be unmounted and looked after.
        if (error.what() != findError_) { // Once for each reason; it is tried again all the time.
            findError_ = error.what();
            context_.logger.Warning("The card of %s cannot be used: %s", context_.options.storage.c_str(),
                                    error.what());
        }
    }
}

/// A store that there was no room to open for changes is opened again when there is.
void CardWatch::RetryWithRoom() {
    if (context_.GetState() == StoreState::ReadOnly && lacksRoom_ && ring_.HasRoomForReserve()) {
        LetGo();
        FindCard();
    }
}

} // namespace drenn::multi_track_recorder
