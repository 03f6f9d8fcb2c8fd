#pragma once

namespace quarn::calvane {

/// Kinds of recorded data. Their numbers stand in history records and name the formats of tracks. The fixed
/// underlying type lets it hold kHistoryTrack, too.
enum track_type : int { VIDEO_TRACK = 0, AUDIO_TRACK = 1, METADATA_TRACK = 2 };

/// The track that tells of the others.
inline constexpr track_type kHistoryTrack = static_cast<track_type>(-1);

} // namespace quarn::calvane
