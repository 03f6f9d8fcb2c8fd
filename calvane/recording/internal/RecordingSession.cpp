#include "calvane/recording/internal/RecordingSession.h"

#include <atomic>
#include <stdexcept>

#include "calvane/recording/RecordingSettings.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "drenn/core/Settings.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using drenn::multi_track_recorder::StoreState;

namespace {

std::atomic<RecordingSession*> currentSession{nullptr};

boost::posix_time::time_duration longestClockWait() {
    constexpr int kDefaultWait = 300;
    int wait = kDefaultWait;
    if (drenn_core_settings_set_default_int_value(kClockWaitSeconds, kDefaultWait) != 0 ||
        drenn_core_settings_get_int_value(kClockWaitSeconds, &wait) != 0) {
        wait = kDefaultWait; // The log has the reason.
    }
    return boost::posix_time::seconds(wait);
}

} // namespace

RecordingSession::RecordingSession(const StorageLocation& location, const RetentionLimits& limits,
                                   IRecordingListener& listener)
    : _listener(listener),
      _card(location, *this),
      _history(_card),
      _retention(_card, limits),
      _queries(_card, _history, limits),
      _clockWait(std::make_unique<ClockWait>(_card.newestTime(), longestClockWait())),
      _storeWatch(std::make_shared<StoreWatch>([this](StoreState state) { onStoreState(state); })) {
    _history.closeAfterRestart();
    _storeWatch->connect(_card.store());
}

RecordingSession::~RecordingSession() {
    _storeWatch->disconnect();
}

RecordingSession& RecordingSession::current() {
    RecordingSession* const session = currentSession;
    if (session == nullptr) {
        throw std::runtime_error("Recording is currently disabled");
    }
    return *session;
}

RecordingSession& RecordingSession::forQuery() {
    RecordingSession& session = current();
    session._card.require();
    session._retention.hideExpired();
    return session;
}

void RecordingSession::setCurrent(RecordingSession* session) {
    currentSession = session;
}

bool RecordingSession::isAwaitingClock() const {
    return _clockWait->goesOn();
}

void RecordingSession::processHistory() {
    if (!isAwaitingClock()) { // What is queued has been dated by a clock that was right.
        _history.writeQueue();
    }
}

void RecordingSession::onDataPresentChange(const ptime& t, track_type type, bool present,
                                           CoverageReason reason) {
    _listener.onDataPresent(type, present);
    _history.queue(t, type, present, reason);
}

void RecordingSession::eraseDataFrom(const ptime& t) {
    _retention.eraseFrom(t);
}

void RecordingSession::onClockJump(track_type type, const ptime& from, const ptime& to) {
    _history.queueClockJump(type, from, to);
}

void RecordingSession::onErased(track_type type, const ptime& first, const ptime& last) {
    _listener.onDataDeleted(type, first, last);
}

void RecordingSession::onStoreState(StoreState state) {
    switch (state) {
        case StoreState::Good:
            onCardBack();
            return;
        case StoreState::ReadOnly:
            CALVANE_RECORDING_LOG(DRENN_CORE_LOG_ERROR,
                                  "The card cannot be written to any more; nothing is recorded, and what is "
                                  "on it can be read. Replace it, or check it with calvane-store");
            _history.goOn(); // It is repaired if the card can be written to again.
            return;
        case StoreState::NoCard:
        case StoreState::OtherCard:
            CALVANE_RECORDING_LOG(DRENN_CORE_LOG_ERROR, "%s",
                                  state == StoreState::NoCard
                                      ? "The card is away; nothing is recorded until it is back"
                                      : "Another card is in place of the recording's; it is left alone, and "
                                        "nothing is recorded until the right one is back");
            _history.noteCardLost();
            return;
    }
}

void RecordingSession::onCardBack() {
    try {
        _history.repairAfterCard();
    } catch (const std::exception& error) { // It may have gone again, and will be repaired when it is back.
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_WARNING,
                              "The history was not repaired after the card was away: %s", error.what());
    }
    _history.goOn();
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_NOTICE, "The card is back; recording goes on");
}

} // namespace quarn::calvane
