#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/Store.h"
#include "quarn/core/Logger.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::uint32_t kKeepMs = 500;

} // namespace

Store::Store(IFileSystem& files, const StoreOptions& options)
    : files_(files),
      options_(options),
      opener_(files, {options.storage, options.database}, options.readOnly) {
    if (options.maxPercent < 1 || options.maxPercent > 100) {
        throw std::runtime_error("The store at " + options.storage + " cannot be kept below " +
                                 std::to_string(options.maxPercent) + " percent; 1 to 100 are possible");
    }
    OpenedStore opened = opener_.Open();
    context_ = std::make_unique<StoreContext>(files, options, opened.id);
    gate_->store = this;
    tables_ = std::make_unique<StoreTables>(*context_, [gate = gate_] {
        const std::shared_lock<std::shared_mutex> lock(gate->mutex);
        if (gate->store != nullptr) {
            gate->store->Relieve();
        }
    });
    ring_ = std::make_unique<Ring>(*context_, *tables_);
    card_ = std::make_unique<CardWatch>(*context_, *tables_, *ring_, opener_);
    context_->onStateChange = [this] {
        const std::lock_guard<std::mutex> lock(wakeMutex_);
        states_.push_back(context_->GetState());
        wakeKeeper_ = true;
        wake_.notify_all();
    };
    card_->TakeOver(opened);
    if (options_.readOnly) {
        context_->SetState(StoreState::ReadOnly);
    } else if (opened.readOnly.empty()) {
        ring_->Tidy();
    } else {
        context_->BecomeReadOnly(opened.readOnly);
    }
    if (options_.background) {
        committer_ = std::thread([this] { RunCommitter(); });
        keeper_ = std::thread([this] { RunKeeper(); });
    }
}

Store::~Store() {
    {
        const std::lock_guard<std::mutex> lock(wakeMutex_);
        isStopping_ = true;
        wake_.notify_all();
    }
    for (std::thread* thread : {&committer_, &keeper_}) {
        if (thread->joinable()) {
            thread->join();
        }
    }
    {
        const std::unique_lock<std::shared_mutex> lock(gate_->mutex);
        gate_->store = nullptr;
    }
    for (const auto& recording : tables_->Recordings()) {
        recording->Detach("its store was closed");
    }
    if (context_->GetState() == StoreState::Good) {
        try {
            tables_->ForEachLane([](Lane& lane) {
                lane.Seal();
                lane.MarkDead();
            });
            const std::lock_guard<std::mutex> lock(keeperMutex_);
            ring_->ForgetRemoved();
        } catch (const std::exception& error) {
            context_->logger.Error("Closing the store: %s", error.what());
        }
    }
}

boost::shared_ptr<Recording> Store::NewRecording() {
    std::uint32_t id = 0;
    context_->Transact([&](Catalogue::Transaction& transaction) {
        id = transaction.AddRecording();
        transaction.Commit();
    });
    return tables_->Add({id, {}}).recording;
}

void Store::Commit() {
    context_->RequireGood();
    PrepareRoom();
    tables_->ForEachLane([](Lane& lane) { lane.Commit(); });
}

void Store::Sync() {
    context_->RequireGood();
    PrepareRoom();
    try {
        SyncLanes();
    } catch (const FileError& error) {
        if (!error.IsOutOfSpace() || TrackImpl::LocksHeld() > 0) {
            throw;
        }
        // Others may have filled the card meanwhile.
        PrepareRoom();
        SyncLanes();
    }
}

/// First all lanes hand over what they have, then all wait for the device together.
void Store::SyncLanes() {
    std::vector<std::function<void()>> syncs;
    std::exception_ptr failure;
    try {
        tables_->ForEachLane([&syncs](Lane& lane) {
            if (lane.BeginSync()) {
                syncs.emplace_back([&lane] { lane.EndSync(); });
            }
        });
        if (context_->BeginSyncCatalogue()) {
            syncs.emplace_back([this] { context_->SyncCatalogue(); });
        }
    } catch (const std::exception&) {
        failure = std::current_exception();
    }
    files_.Together(syncs);
    if (failure != nullptr) {
        std::rethrow_exception(failure);
    }
}

void Store::Keep() {
    try {
        const std::lock_guard<std::mutex> lock(keeperMutex_);
        card_->Keep();
        if (GetState() == StoreState::Good) {
            ring_->Keep();
        }
    } catch (const std::exception&) {
        RaiseStates();
        throw;
    }
    RaiseStates();
}

std::uint64_t Store::GetBytes(bool sparse) const {
    std::uint64_t bytes = 0;
    for (const Lane* lane : tables_->Lanes()) {
        if (lane->IsSparse() == sparse) {
            for (const auto& segment : lane->SealedSegments()) {
                bytes += segment->length;
            }
        }
    }
    return bytes;
}

void Store::EraseOldest(bool sparse, std::uint64_t most) {
    if (TrackImpl::LocksHeld() > 0) {
        throw std::logic_error("The oldest data cannot be erased with the lock of a track held");
    }
    for (bool goesOn = true; goesOn;) {
        // For one segment at a time: who appends may be waiting.
        const std::lock_guard<std::mutex> lock(keeperMutex_);
        goesOn = GetState() == StoreState::Good && GetBytes(sparse) > most && ring_->EraseOldest(sparse);
    }
}

void Store::PrepareRoom() {
    // Making room takes locks of tracks, one at a time; who holds one leaves it to the keeper.
    if (TrackImpl::LocksHeld() > 0) {
        Wake(wakeKeeper_);
        return;
    }
    const std::lock_guard<std::mutex> lock(keeperMutex_);
    context_->RequireGood(); // The keeper may have found another card while this waited.
    ring_->MakeRoom();
}

/// Much is in memory: whoever appends helps to bring it out.
void Store::Relieve() {
    if (context_->memory <= context_->mostMemory) {
        return;
    }
    try {
        Sync();
    } catch (const FileError& error) {
        if (!error.IsOutOfSpace()) {
            throw;
        }
        // There is some memory left; the keeper makes room.
        Wake(wakeKeeper_);
    }
}

boost::signals2::connection Store::ConnectToStateSignal(
    const MultiTrackRecorder::StateSignal::slot_type& slot) {
    return stateSignal_.connect(slot);
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

void Store::Wake(bool& flag) {
    const std::lock_guard<std::mutex> lock(wakeMutex_);
    flag = true;
    wake_.notify_all();
}

bool Store::WaitFor(std::uint32_t milliseconds, bool& isWoken) {
    std::unique_lock<std::mutex> lock(wakeMutex_);
    wake_.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] { return isStopping_ || isWoken; });
    isWoken = false;
    return !isStopping_;
}

void Store::RunKeeper() {
    while (WaitFor(kKeepMs, wakeKeeper_)) {
        try {
            Keep();
        } catch (const std::exception& error) {
            context_->logger.Error("%s", error.what());
        }
    }
}

void Store::RunCommitter() {
    auto lastSync = std::chrono::steady_clock::now();
    std::string lastError;
    while (WaitFor(options_.commitMs, wakeCommitter_)) {
        if (GetState() != StoreState::Good) {
            continue;
        }
        const auto now = std::chrono::steady_clock::now();
        // At the round that comes before it would be too late.
        const bool isTime = now - lastSync + std::chrono::milliseconds(options_.commitMs / 2) >=
                            std::chrono::milliseconds(options_.syncMs);
        try {
            if (isTime) {
                lastSync = now;
                Sync();
            } else {
                Commit();
            }
            lastError.clear();
        } catch (const std::exception& error) {
            if (error.what() != lastError) { // Once for each reason; it is tried again all the time.
                lastError = error.what();
                context_->logger.Error("%s", error.what());
            }
            Wake(wakeKeeper_);
        }
    }
}

} // namespace drenn::multi_track_recorder
