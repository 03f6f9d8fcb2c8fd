#include "calvane/recording/internal/history/HistoryCodec.h"

namespace quarn::calvane {

InfoMap infoFromEvent(const HistoryEvent& event) {
    if (!event.isOfTrack) {
        return {{InfoKeys::kHistoryEventType, std::to_string(kRecordingStateEvent)},
                {InfoKeys::kRecordingState, event.present ? "1" : "0"}};
    }
    InfoMap info{{InfoKeys::kHistoryEventType, std::to_string(kTrackDataPresentEvent)},
                 {InfoKeys::kTrackType, std::to_string(event.track)},
                 {InfoKeys::kTrackDataPresent, event.present ? "1" : "0"}};
    if (!event.present && event.reason != CoverageReason::Stopped) {
        info[InfoKeys::kReason] = std::to_string(static_cast<int>(event.reason));
    }
    return info;
}

HistoryEvent eventFromInfo(const boost::posix_time::ptime& time, const InfoMap& info) {
    HistoryEvent event;
    event.time = time;
    event.isOfTrack = numberUnder(info, InfoKeys::kHistoryEventType) == kTrackDataPresentEvent;
    if (!event.isOfTrack) {
        event.present = numberUnder(info, InfoKeys::kRecordingState) != 0;
        return event;
    }
    event.present = numberUnder(info, InfoKeys::kTrackDataPresent) != 0;
    event.track = static_cast<track_type>(numberUnder(info, InfoKeys::kTrackType));
    if (info.count(InfoKeys::kReason) != 0) {
        event.reason = static_cast<CoverageReason>(numberUnder(info, InfoKeys::kReason));
    }
    return event;
}

} // namespace quarn::calvane
