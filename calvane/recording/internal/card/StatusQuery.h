#pragma once

#include "calvane/recording/RecordingStatus.h"
#include "calvane/recording/internal/card/StorageLocation.h"

namespace quarn::calvane {

/// How the current recording and its card are; without a recording, what `reason` says. Any thread.
RecordingStatus lookAtRecording(const StorageLocation& location, DisabledReason reason);

} // namespace quarn::calvane
