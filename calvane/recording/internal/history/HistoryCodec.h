#pragma once

#include "calvane/recording/HistoryEvent.h"
#include "calvane/recording/internal/InfoMap.h"

namespace quarn::calvane {

/// What a history record says of an event, without its time.
InfoMap infoFromEvent(const HistoryEvent& event);
/// Throws what numberUnder throws.
HistoryEvent eventFromInfo(const boost::posix_time::ptime& time, const InfoMap& info);

} // namespace quarn::calvane
