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
#include <optional>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "drenn/multi_track_recorder/MultiTrackRecorder.h"
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

    StoreState GetState() const { return context_->GetState(); }
    /// What was found damaged when the store was opened, and what is known to be damaged since earlier.
    std::vector<std::string> GetDamage() const { return tables_->GetDamage(); }
    boost::signals2::connection ConnectToStateSignal(const MultiTrackRecorder::StateSignal::slot_type& slot);

private:
    /// A segment that the ring erases.
    struct Erasing {
        struct Part {
            std::shared_ptr<TrackImpl> track;
            std::uint64_t end; ///< Of the track's records in the segment.
        };
        std::shared_ptr<Segment> segment;
        std::vector<Part> parts;
    };

    /// Appenders come in through here without a lock; closing waits until they are out.
    struct Gate {
        std::shared_mutex mutex;
        Store* store; ///< Nothing when it is closed. Guarded by mutex.
    };

    void TakeOver(OpenedStore& opened);
    void Tidy();
    void SyncLanes();
    void Relieve();

    // Keeper.
    void CheckCard();
    void LoseCard(StoreState state);
    void LetGo();
    void FindCard();
    void PrepareRoom();
    Space LookAtSpace();
    void MakeRoom();
    bool RemoveAside();
    void RetryWithRoom();
    std::shared_ptr<Segment> OldestSegment(bool sparse);
    bool SealBulk();
    void EraseSegment(const std::shared_ptr<Segment>& segment);
    void FinishErasing();
    void RemoveDead();
    void ForgetRemoved();
    void ForgetRemoved(Catalogue::Transaction& transaction);
    void KeepReserve();
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
    StoreLock lock_;           ///< Guarded by keeperMutex_.
    std::uint64_t device_ = 0; ///< Guarded by keeperMutex_.
    bool isOverfull_ = false;  ///< Guarded by keeperMutex_.
    bool hasAside_ = false; ///< There may be files to be removed before any segment. Guarded by keeperMutex_.
    bool lacksRoom_ = false;         ///< That is why the store is read-only. Guarded by keeperMutex_.
    bool hasReserve_ = false;        ///< Guarded by keeperMutex_.
    bool hasIdentity_ = true;        ///< The card can be told by its identity. Guarded by keeperMutex_.
    std::string findError_;          ///< Why the card that is back cannot be used. Guarded by keeperMutex_.
    std::optional<Erasing> erasing_; ///< Begun; the catalogue does not know yet. Guarded by keeperMutex_.
    std::vector<SegmentKey>
        removed_; ///< Files that are gone for good, for the catalogue to forget. Likewise.

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
