#pragma once

namespace quarn::calvane {

/// Kinds of recorded data. Their numbers stand in history records and name the formats of tracks. The fixed
/// underlying type lets it hold RecordingManager::kHistoryTrack (-1), too.
enum track_type : int { VIDEO_TRACK = 0, AUDIO_TRACK = 1, METADATA_TRACK = 2 };

} // namespace quarn::calvane
