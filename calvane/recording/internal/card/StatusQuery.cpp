#include "calvane/recording/internal/card/StatusQuery.h"

#include <algorithm>

#include "calvane/recording/internal/RecordingSession.h"
#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

namespace quarn::calvane {

using drenn::multi_track_recorder::StoreState;
using drenn::multi_track_recorder::TrackClass;
using State = RecordingStatus::State;

namespace {

std::string WhyDisabled(DisabledReason reason) {
    switch (reason) {
        case DisabledReason::NoCard:
            return "there is no card";
        case DisabledReason::ForeignData:
            return "the card holds other things than recordings";
        case DisabledReason::NotOpened:
            return "the recording could not be opened; the log says why";
        case DisabledReason::None:
            break;
    }
    return "recording has not been started";
}

void SetState(RecordingStatus& status, StoreState store, const std::vector<std::string>& damage) {
    const bool comes = std::any_of(status.tracks.begin(), status.tracks.end(),
                                   [](const TrackStatus& track) { return track.isPresent; });
    switch (store) {
        case StoreState::Good:
            status.state = comes ? State::Recording : State::Waiting;
            break;
        case StoreState::ReadOnly:
            status.state = State::ReadOnly;
            status.problem = "the card takes no data, or the recording is damaged; the log says why";
            break;
        case StoreState::NoCard:
            status.state = State::CardAway;
            status.problem = "the card is away";
            break;
        case StoreState::OtherCard:
            status.state = State::CardAway;
            status.problem = "another card is in its place";
            break;
    }
    if (!damage.empty()) {
        status.problem += (status.problem.empty() ? "" : "; ") + damage.front() +
                          (damage.size() == 1 ? "" : ", and " + std::to_string(damage.size() - 1) + " more");
    }
}

} // namespace

RecordingStatus lookAtRecording(const StorageLocation& location, DisabledReason reason) {
    RecordingStatus status;
    const CardSpace space = lookAtCard(location.root());
    status.cardBytes = space.card;
    status.usableBytes = space.usable;
    RecordingSession* session = nullptr;
    try {
        session = &RecordingSession::current();
    } catch (const std::exception&) {
        status.problem = WhyDisabled(reason);
        return status;
    }
    status.cardId = session->card().store().getIdentity();
    for (const track_type type : {VIDEO_TRACK, AUDIO_TRACK, METADATA_TRACK}) {
        status.tracks[static_cast<std::size_t>(type)] = session->queries().getTrackStatus(type);
    }
    status.used.data = session->card().store().getBytes(TrackClass::Bulk);
    status.used.history = session->card().store().getBytes(TrackClass::Sparse);
    if (session->isAwaitingClock()) {
        status.problem = "the clock is behind the newest record, and its synchronisation is awaited";
    }
    SetState(status, session->card().store().getState(), session->card().store().getDamage());
    return status;
}

} // namespace quarn::calvane
