#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/StoreContext.h"
#include "quarn/core/Logger.h"

namespace drenn::multi_track_recorder {

StoreContext::StoreContext(IFileSystem& fileSystem, const StoreOptions& storeOptions, const StoreId& storeId)
    : files(fileSystem),
      options(storeOptions),
      folders{options.storage, options.database},
      id(storeId),
      logger(*quarn::core::Logger::GetLogger("MultiTrackRecorder")),
      cache(fileSystem, storeId),
      directories(fileSystem, folders.Directories()) {}

std::shared_ptr<Catalogue> StoreContext::GetCatalogue() const {
    const std::lock_guard<std::mutex> lock(catalogueMutex_);
    if (catalogue_ == nullptr) {
        throw std::runtime_error("The card of " + options.storage + " is away");
    }
    return catalogue_;
}

void StoreContext::LearnDirectories() {
    if (!cache.BeginToLearn()) {
        return;
    }
    try {
        directories.ForEach([this](SegmentKey key, const StoredDirectory& stored) {
            cache.Learn(key, std::make_shared<SegmentDirectory>(stored));
        });
    } catch (const FileError& error) {
        logger.Warning("Cannot read where the blocks of segments are: %s", error.what());
    }
}

void StoreContext::SetCatalogue(std::shared_ptr<Catalogue> catalogue) {
    const std::lock_guard<std::mutex> lock(catalogueMutex_);
    catalogue_ = std::move(catalogue);
}

void StoreContext::Transact(const std::function<void(Catalogue::Transaction&)>& change,
                            Catalogue::Durability durability) {
    const auto once = [&] {
        const std::shared_ptr<Catalogue> catalogue = GetCatalogue();
        Catalogue::Transaction transaction(*catalogue, durability);
        change(transaction);
    };
    RequireGood();
    try {
        try {
            once();
        } catch (const FileError& error) {
            if (!error.IsOutOfSpace() || !files.Exists(folders.Reserve())) {
                throw;
            }
            files.Remove(folders.Reserve());
            once();
        }
    } catch (const FileError& error) {
        if (!error.IsOutOfSpace()) {
            BecomeReadOnly(error.what());
        }
        throw;
    }
}

bool StoreContext::BeginSyncCatalogue() {
    bool needsSync = false;
    WithCatalogue([&needsSync](Catalogue& catalogue) { needsSync = catalogue.BeginSyncLog(); });
    return needsSync;
}

void StoreContext::SyncCatalogue() {
    WithCatalogue([](Catalogue& catalogue) { catalogue.SyncLog(); });
}

void StoreContext::WithCatalogue(const std::function<void(Catalogue&)>& action) {
    try {
        action(*GetCatalogue());
    } catch (const FileError& error) {
        BecomeReadOnly(error.what());
        throw;
    }
}

void StoreContext::RequireGood() const {
    RequireCard();
    if (state_ == StoreState::ReadOnly) {
        throw std::runtime_error("The store at " + options.storage + " is read-only: " +
                                 (options.readOnly ? "it was opened to be read" : "its device failed"));
    }
}

void StoreContext::RequireCard() const {
    if (state_ == StoreState::NoCard) {
        throw std::runtime_error("The card of " + options.storage + " is away");
    }
    if (state_ == StoreState::OtherCard) {
        throw std::runtime_error("Another card is at " + options.storage);
    }
}

void StoreContext::BecomeReadOnly(const std::string& reason) {
    StoreState expected = StoreState::Good;
    if (state_.compare_exchange_strong(expected, StoreState::ReadOnly)) {
        logger.Error("The store is read-only from now on: %s", reason.c_str());
        onStateChange();
    }
}

void StoreContext::SetState(StoreState state) {
    if (state_.exchange(state) != state) {
        onStateChange();
    }
}

std::uint64_t StoreContext::NextTime() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    SetLowestTime(static_cast<std::uint64_t>(
        std::max<std::int64_t>(0, std::chrono::duration_cast<std::chrono::microseconds>(now).count())));
    return time_;
}

void StoreContext::SetLowestTime(std::uint64_t time) {
    std::uint64_t before = time_;
    while (before < time && !time_.compare_exchange_weak(before, time)) {
    }
}

} // namespace drenn::multi_track_recorder
