#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "calvane/recording/HistoryEvent.h"
#include "calvane/recording/internal/card/RecordingCard.h"

namespace quarn::calvane {

/// Writes the history: holds events until they can be put in order, dates them so that its times never fall, and closes
/// what was open when the card or the power went.
///
/// Threads: any, without locks of tracks held: its own locks are taken before them. Who reports or asks does not wait for
///          the history's track; only what writes to it does.
/// Errors:  what goes wrong when a record is written is logged, and the record is lost.
class RecordingHistory {
public:
    using Ptime = boost::posix_time::ptime;

    /// What is not in the track yet.
    struct Unwritten {
        bool isPresent = false;           ///< The track's data comes, as last reported.
        std::vector<HistoryEvent> events; ///< Of the track, by time.
    };

    explicit RecordingHistory(const RecordingCard& card) : _card(card) {}

    /// Closes what was open when the recorder ended. Throws, and says in the log what to do, if the newest record that can
    /// be read makes no sense.
    void closeAfterRestart();
    /// A track's data came or went. It is written after its hold time.
    void queue(const Ptime& t, track_type type, bool present, CoverageReason reason);
    /// The data between the two times is missing, if it was present.
    void queueClockJump(track_type type, const Ptime& from, const Ptime& to);
    /// Writes the queued events that are at least 1.5 s old.
    void writeQueue();
    /// Appends a record at once.
    void write(const Ptime& t, const std::string& info);
    /// The card has gone: from here on events are lost, until it is back and this goes on.
    void noteCardLost();
    /// Events of the time without the card are lost. What had come before ended when the card went; what is present now
    /// has begun again. Throws what the store throws when the card goes again; then it is to be called when it is back.
    void repairAfterCard();
    /// The card is back, and the history repaired if it could be: what is queued is written again.
    void goOn();

    bool isPresent(track_type type) const;
    Unwritten unwrittenOf(track_type type) const;

private:
    using Queue = std::multimap<Ptime, HistoryEvent>;

    unsigned int findNewestRecord() const;
    bool wasClosedCleanly() const;
    std::set<track_type> tracksLeftOpen() const;
    void queueLocked(const Ptime& t, track_type type, bool present, CoverageReason reason);
    bool mustWait() const;
    void redateFutureEvents(const Ptime& now);
    bool writeOldestQueued(const Ptime& cutoff);
    void writeQueued(const HistoryEvent& event);
    Ptime dateFor(const Ptime& t) const;
    std::map<track_type, Ptime> beginsOfPresent(const Ptime& now) const;

    const RecordingCard& _card;

    std::mutex _writeMutex; // Held by who writes what was queued, or takes it away; taken before _mutex.
    std::int32_t _tracksWithData = 0; // Guarded by _writeMutex.

    mutable std::mutex _mutex; // Guards what follows. Held for work in memory only.
    Queue _queue;
    std::set<track_type> _present; // As last reported.
    Ptime _cardLostAt;             // Not-a-date-time while it is there. Changed with _writeMutex held, too.
    bool _isHeld = false;          // From the loss of the card to goOn().
    Queue _queueAtLoss;
    std::set<track_type> _presentAtLoss;
};

} // namespace quarn::calvane
