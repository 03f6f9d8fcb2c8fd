#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <boost/signals2/connection.hpp>
#include <boost/weak_ptr.hpp>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "drenn/multi_track_recorder/MultiTrackRecorder.h"
#include "drenn/multi_track_recorder/internal/CardWatch.h"
#include "drenn/multi_track_recorder/internal/Ring.h"
#include "drenn/multi_track_recorder/internal/StoreContext.h"
#include "drenn/multi_track_recorder/internal/StoreOptions.h"
#include "drenn/multi_track_recorder/internal/StoreTables.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreOpener.h"

namespace drenn::multi_track_recorder {

/// What a MultiTrackRecorder stands for: an open store.
///
/// Threads:   any.
/// Errors:    std::runtime_error that names the path and the reason; FileError where a file operation failed.
/// Lifetime:  `files` outlives it. Recordings and tracks that outlive it throw from every operation.
class Store {
public:
    /// Opens, recovers or makes the store.
    Store(IFileSystem& files, const StoreOptions& options);
    /// Makes durable what can be; errors are logged.
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    std::list<boost::weak_ptr<Recording>> GetRecordings() const { return tables_->GetRecordings(); }
    boost::shared_ptr<Recording> NewRecording();

    void Commit(); ///< Writes what was appended to the segments.
    void Sync();   ///< Commit, and makes durable what was written. MultiTrackRecorder::flush.
    void Keep();   ///< One round of the keeper: the card, room, removals. Not with a track's lock held.

    /// Of sealed segments. MultiTrackRecorder::getBytes.
    std::uint64_t GetBytes(bool sparse) const;
    void EraseOldest(bool sparse, std::uint64_t most); ///< MultiTrackRecorder::eraseOldest.

    std::string GetIdentity() const { return ToText(context_->id); }
    StoreState GetState() const { return context_->GetState(); }
    /// What was found damaged when the store was opened, and what is known to be damaged since earlier.
    std::vector<std::string> GetDamage() const { return tables_->GetDamage(); }
    boost::signals2::connection ConnectToStateSignal(const MultiTrackRecorder::StateSignal::slot_type& slot);

private:
    /// Appenders come in through here without a lock; closing waits until they are out.
    struct Gate {
        std::shared_mutex mutex;
        Store* store; ///< Nothing when it is closed. Guarded by mutex.
    };

    void SyncLanes();
    void Relieve();

    void PrepareRoom();
    void RaiseStates();

    void RunCommitter();
    void RunKeeper();
    /// Waits until the time is over or something is to be done; false when the store is to stop.
    bool WaitFor(std::uint32_t milliseconds, bool& isWoken);
    void Wake(bool& flag);

    IFileSystem& files_;
    const StoreOptions options_;
    StoreOpener opener_;
    std::unique_ptr<StoreContext> context_;
    MultiTrackRecorder::StateSignal stateSignal_;

    const std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
    std::unique_ptr<StoreTables> tables_;

    /// Taken before all locks of tracks: one thread makes room, or looks after the card, at a time.
    std::mutex keeperMutex_;
    // Guarded by keeperMutex_.
    std::unique_ptr<Ring> ring_;
    std::unique_ptr<CardWatch> card_;

    std::mutex wakeMutex_;
    std::condition_variable wake_;
    // Guarded by wakeMutex_.
    bool isStopping_ = false;
    bool wakeCommitter_ = false;
    bool wakeKeeper_ = false;
    std::vector<StoreState> states_; ///< That are still to be signalled.

    std::thread committer_;
    std::thread keeper_;
};

} // namespace drenn::multi_track_recorder
