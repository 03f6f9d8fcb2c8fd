#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <memory>

#include "calvane/recording/internal/ClockWait.h"
#include "calvane/recording/internal/IRecordingListener.h"
#include "calvane/recording/internal/ITrackOwner.h"
#include "calvane/recording/internal/card/RecordingCard.h"
#include "calvane/recording/internal/card/Retention.h"
#include "calvane/recording/internal/card/RetentionLimits.h"
#include "calvane/recording/internal/card/StoreWatch.h"
#include "calvane/recording/internal/history/RecordingHistory.h"
#include "calvane/recording/internal/history/RecordingQueries.h"

namespace quarn::calvane {

/// The device's recording while there is one: its parts, and what each of them needs of the others.
///
/// Threads:  any.
/// Errors:   the constructor throws what opening the card throws.
/// Lifetime: the limits and the listener outlive it. RecordingManager has it, and makes it the current one.
class RecordingSession : private ITrackOwner {
public:
    RecordingSession(const StorageLocation& location, const RetentionLimits& limits,
                     IRecordingListener& listener);
    ~RecordingSession() override;
    RecordingSession(const RecordingSession&) = delete;
    RecordingSession& operator=(const RecordingSession&) = delete;

    /// Throws std::runtime_error "Recording is currently disabled" if there is none.
    static RecordingSession& current();
    /// The current one, with what is too old hidden. Throws while the card is away, too.
    static RecordingSession& forQuery();
    /// Null: there is none.
    static void setCurrent(RecordingSession* session);

    RecordingCard& card() { return _card; }
    const RecordingCard& card() const { return _card; }
    RecordingHistory& history() { return _history; }
    Retention& retention() { return _retention; }
    const RecordingQueries& queries() const { return _queries; }

    /// Whether nothing is recorded since the clock has come up behind the newest record and is not synchronised yet.
    bool isAwaitingClock() const override;
    /// Writes the queued events that are old enough, unless the clock is awaited.
    void processHistory();
    void onDataPresentChange(const Ptime& t, track_type type, bool present, CoverageReason reason) override;

private:
    void eraseDataFrom(const Ptime& t) override;
    void onClockJump(track_type type, const Ptime& from, const Ptime& to) override;
    void onErased(track_type type, const Ptime& first, const Ptime& last) override;
    void onStoreState(drenn::multi_track_recorder::StoreState state);
    void onCardBack();

    IRecordingListener& _listener;
    RecordingCard _card;
    RecordingHistory _history;
    Retention _retention;
    const RecordingQueries _queries;
    const std::unique_ptr<ClockWait> _clockWait;
    const std::shared_ptr<StoreWatch> _storeWatch;
};

} // namespace quarn::calvane
