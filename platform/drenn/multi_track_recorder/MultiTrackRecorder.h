#pragma once

#include <boost/shared_ptr.hpp>
#include <boost/signals2/connection.hpp>
#include <boost/signals2/signal.hpp>
#include <boost/weak_ptr.hpp>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "drenn/Export.h"
#include "drenn/multi_track_recorder/Recording.h"

namespace drenn::multi_track_recorder {

class Store;

/// What the store can do at the moment.
enum class StoreState {
    Good,     ///< Everything.
    ReadOnly, ///< The device refused to keep data twice, is mounted read-only or full, or part of the store is
              ///< damaged: what is there can be read.
    NoCard,   ///< The folders are gone. Every descriptor is closed; the store goes on when they are back.
    OtherCard ///< There is another store in their place; it is left alone.
};

/// A store of recordings on a card: durable, checked, and bounded in space.
///
/// Two folders make up a store: `storage` holds the data in append-only segments, `database` a catalogue of
/// what exists. docs/design/recording-store.md has the promises and how they are kept.
///
/// Threads:   any.
/// Errors:    std::runtime_error that names the path and the reason.
/// Lifetime:  one process at a time has a store open. Destruction makes everything durable that can be.
class DRENN_API MultiTrackRecorder {
public:
    using StateSignal = boost::signals2::signal<void(StoreState state)>;

    /// Opens the store, after a crash with everything that was durable, or makes one in folders that are empty
    /// or absent. `maxPercent` (1 to 100): the highest share of the file system, as a writer without root's
    /// reserve sees it, that may be used, by whomever, before this store erases its oldest data.
    static boost::shared_ptr<MultiTrackRecorder> create(const std::string& storage,
                                                        const std::string& database, unsigned int maxPercent);

    /// Opens a store that is there to read it: nothing on the device changes, and what a crash left is recovered in memory
    /// only. Other processes are kept out meanwhile. Its state is ReadOnly, for good.
    static boost::shared_ptr<MultiTrackRecorder> openToRead(const std::string& storage,
                                                            const std::string& database);

    explicit MultiTrackRecorder(std::unique_ptr<Store> store); // For create.
    ~MultiTrackRecorder();
    MultiTrackRecorder(const MultiTrackRecorder&) = delete;
    MultiTrackRecorder& operator=(const MultiTrackRecorder&) = delete;

    /// In the order in which they were made. The recorder keeps them.
    std::list<boost::weak_ptr<Recording>> getRecordings() const;
    /// Durable when it returns.
    boost::shared_ptr<Recording> newRecording();

    /// Returns when everything appended before is durable; throws when it cannot become so.
    void flush();

    /// What the segments of a class occupy, without those that are being written.
    std::uint64_t getBytes(TrackClass trackClass) const;
    /// Erases the oldest segments of a class, some 16 MiB each, until it occupies at most `most` bytes, as a card that is
    /// full does; those that are being written stay. Raises the erase-range signals of the tracks on this thread. Durable
    /// when it returns. Does nothing while nothing can be changed. Threads that call at once erase no more than one would.
    /// Not with the lock of a track held: std::logic_error.
    void eraseOldest(TrackClass trackClass, std::uint64_t most);

    /// 32 hexadecimal digits that were chosen at random when the store was made, and stay with its card.
    std::string getIdentity() const;
    StoreState getState() const;
    /// What was found damaged when the store was opened, and what is known to be damaged since earlier: a line for each
    /// file and place. What is damaged is kept, and the records around it can be read.
    std::vector<std::string> getDamage() const;
    /// Raised with the new state, on a thread of the store's own and without its locks.
    boost::signals2::connection connectToStateSignal(const StateSignal::slot_type& slot);

private:
    const std::unique_ptr<Store> store_;
};

} // namespace drenn::multi_track_recorder
