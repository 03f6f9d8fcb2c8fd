#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "drenn/multi_track_recorder/MultiTrackRecorder.h"
#include "drenn/multi_track_recorder/internal/SegmentReader.h"
#include "drenn/multi_track_recorder/internal/StoreOptions.h"
#include "drenn/multi_track_recorder/internal/io/Catalogue.h"
#include "drenn/multi_track_recorder/internal/io/DirectoryFile.h"
#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"
#include "drenn/multi_track_recorder/internal/recovery/Opening.h"

namespace quarn::core {
class Logger;
}

namespace drenn::multi_track_recorder {

/// What the parts of a store share.
///
/// Threads: any.
class StoreContext {
public:
    StoreContext(IFileSystem& fileSystem, const StoreOptions& storeOptions, const StoreId& storeId);

    IFileSystem& files;
    const StoreOptions options;
    const StoreFolders folders;
    const StoreId id;
    quarn::core::Logger& logger;
    SegmentCache cache;
    DirectoryFile directories;
    std::atomic<std::size_t> memory{0}; ///< Bytes of records that are not durable yet.
    /// Who appends when there are more waits for them to be written.
    std::atomic<std::size_t> mostMemory{std::size_t{32} * 1024 * 1024};

    /// What the card has room for, in one record.
    std::atomic<std::uint64_t> largestRecord{std::uint64_t{64} * 1024 * 1024};

    /// Throws when it is closed because the card is away.
    std::shared_ptr<Catalogue> GetCatalogue() const;
    /// Reads the directories of all segments, as far as there is room for them, unless that was done. What cannot be read of them
    /// is read from the segments.
    void LearnDirectories();
    void SetCatalogue(std::shared_ptr<Catalogue> catalogue);
    /// One transaction, and what has to change in memory with it, which `change` does behind the commit. When
    /// there is no room, the reserve is given up for it.
    void Transact(const std::function<void(Catalogue::Transaction&)>& change,
                  Catalogue::Durability durability = Catalogue::Durability::AtOnce);
    /// Makes transactions durable that wait for it, as Catalogue::BeginSyncLog and SyncLog do. A failure makes the store
    /// read-only.
    bool BeginSyncCatalogue();
    void SyncCatalogue();

    StoreState GetState() const { return state_; }
    /// Throws unless the store can be changed, or, for reading, unless the card is there.
    void RequireGood() const;
    void RequireCard() const;
    /// Only from Good: the device does not keep what it is given.
    void BecomeReadOnly(const std::string& reason);
    void SetState(StoreState state);
    /// Wakes whoever raises the state signal.
    std::function<void()> onStateChange = [] {};

    /// Microseconds since 1970 that never fall, even if the clock does.
    std::uint64_t NextTime();
    void SetLowestTime(std::uint64_t time);

private:
    void WithCatalogue(const std::function<void(Catalogue&)>& action);

    mutable std::mutex catalogueMutex_;
    std::shared_ptr<Catalogue> catalogue_;
    std::atomic<StoreState> state_{StoreState::Good};
    std::atomic<std::uint64_t> time_{0};
};

} // namespace drenn::multi_track_recorder
