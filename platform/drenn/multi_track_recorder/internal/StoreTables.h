#pragma once

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/Recording.h"
#include "drenn/multi_track_recorder/internal/RecordingImpl.h"
#include "drenn/multi_track_recorder/internal/StoreContext.h"

namespace drenn::multi_track_recorder {

/// What an open store has in memory: its recordings with their tracks and lanes, and what is known to be damaged.
///
/// Threads:   any. Its lock is held for work in memory only, never while an action of a caller runs.
/// Ownership: recordings stay until it is destroyed; a Lane* is valid until then.
/// Lifetime:  `context` outlives it.
class StoreTables {
public:
    struct Member {
        std::shared_ptr<RecordingImpl> impl;
        boost::shared_ptr<Recording> recording;
    };

    /// `relieve` goes to every track: see TrackImpl.
    StoreTables(StoreContext& context, std::function<void()> relieve);

    /// A recording that the catalogue knows.
    Member Add(const RecordingRow& row);
    /// For the user of the store.
    std::list<boost::weak_ptr<Recording>> GetRecordings() const;
    std::vector<std::shared_ptr<RecordingImpl>> Recordings() const;
    std::vector<Lane*> Lanes() const;
    /// All lanes, even if one fails; then its error.
    void ForEachLane(const std::function<void(Lane&)>& action) const;

    /// One line for each place.
    void SetDamage(std::vector<std::string> damage);
    std::vector<std::string> GetDamage() const;

private:
    StoreContext& context_;
    const std::function<void()> relieve_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::list<Member> recordings_;
    std::vector<std::string> damage_;
};

} // namespace drenn::multi_track_recorder
