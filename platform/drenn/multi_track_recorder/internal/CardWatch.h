#pragma once

#include <cstdint>
#include <string>

#include "drenn/multi_track_recorder/internal/Ring.h"
#include "drenn/multi_track_recorder/internal/StoreTables.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreOpener.h"

namespace drenn::multi_track_recorder {

/// Looks whether the card that was opened is still there: closes every file when it is gone, so that what is left of it
/// can be unmounted, and opens the store again when it is back. What was not durable stays in memory meanwhile.
///
///     Good, ReadOnly -- the device or the identity changed --> NoCard, OtherCard
///     NoCard <-- which card is there --> OtherCard
///     NoCard, OtherCard -- the same identity is there, and opens --> Good or ReadOnly
///     ReadOnly, for want of room -- there is some --> Good
///
/// Threads:   one at a time, under the keeper's lock of the store.
/// Ownership: holds the lock of the store's folders.
/// Errors:    FileError where space cannot be looked at. A card that cannot be used is logged.
/// Lifetime:  TakeOver before anything else; what it is given outlives it.
class CardWatch {
public:
    CardWatch(StoreContext& context, StoreTables& tables, Ring& ring, StoreOpener& opener);
    /// Closes every file, then unlocks the folders.
    ~CardWatch();
    CardWatch(const CardWatch&) = delete;
    CardWatch& operator=(const CardWatch&) = delete;

    /// The store was opened; makes its tables. `opened` keeps all but the lock.
    void TakeOver(OpenedStore& opened);
    /// A round of the keeper.
    void Keep();

private:
    void CheckCard();
    void LoseCard(StoreState state);
    void LetGo();
    void FindCard();
    void RetryWithRoom();

    StoreContext& context_;
    StoreTables& tables_;
    Ring& ring_;
    StoreOpener& opener_;

    // Guarded by the keeper's lock.
    StoreLock lock_;
    std::uint64_t device_ = 0;
    bool lacksRoom_ = false;  ///< That is why the store is read-only.
    bool hasIdentity_ = true; ///< The card can be told by its identity.
    std::string findError_;   ///< Why the card that is back cannot be used.
};

} // namespace drenn::multi_track_recorder
