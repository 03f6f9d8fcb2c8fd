#include "calvane/recording/internal/card/Retention.h"

#include "calvane/recording/RecordingClock.h"
#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/TrackLock.h"
#include "drenn/multi_track_recorder/MultiTrackRecorder.h"

namespace quarn::calvane {

using boost::posix_time::ptime;
using drenn::multi_track_recorder::TrackClass;

namespace {

const boost::posix_time::time_duration kErasingPeriod = boost::posix_time::seconds(10);

} // namespace

void Retention::enforce() {
    const ptime cutoff = _limits.cutoff(RecordingClock::now());
    if (!cutoff.is_not_a_date_time()) {
        _nextErasing = RecordingClock::steadyMicroseconds() + kErasingPeriod.total_microseconds();
        enforceTime(cutoff);
    }
    enforceSpace();
}

void Retention::enforceTime(const ptime& cutoff) {
    for (const auto& [type, track] : _card.allTracks()) {
        const TrackLock lock(*track->getTrack());
        track->hideBefore(ptime());
        ptime first;
        ptime last;
        if (track->getRecordingTimePeriod(first, last) && first < cutoff) {
            track->getTrack()->eraseRange(0, track->getTrackIndexForcedIntoBounds(cutoff) + 1);
        }
    }
}

void Retention::enforceSpace() {
    const RecordingSpace limit = _limits.getMaxSpace();
    const auto enforceOn = [this](TrackClass trackClass, std::uint64_t most) {
        if (most != 0) {
            _card.store().eraseOldest(trackClass, most);
        }
    };
    enforceOn(TrackClass::Bulk, limit.data);
    enforceOn(TrackClass::Sparse, limit.history);
}

void Retention::hideExpired() {
    if (RecordingClock::steadyMicroseconds() >= _nextErasing) {
        try {
            enforce();
        } catch (const std::exception& problem) { // A card that cannot be written to can still be asked.
            CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "What is too old was not erased: %s", problem.what());
        }
    }
    const ptime cutoff = _limits.cutoff(RecordingClock::now());
    for (const auto& [type, track] : _card.allTracks()) {
        track->hideBefore(cutoff);
    }
}

void Retention::eraseFrom(const ptime& t) {
    for (const auto& [type, track] : _card.allTracks()) {
        const TrackLock lock(*track->getTrack());
        track->hideBefore(ptime());
        ptime first;
        ptime last;
        if (track->getRecordingTimePeriod(first, last)) {
            // What cannot be read in front of the first may be earlier: it may only be the card that is just going.
            const unsigned int index =
                t < first ? track->getFirstReadableIndex(0) : track->getTrackIndexForcedIntoBounds(t);
            track->getTrack()->eraseRange(index, track->getTrack()->size());
        }
    }
}

} // namespace quarn::calvane
