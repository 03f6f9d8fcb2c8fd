#pragma once

#include <set>
#include <string>

#include "api/Query.h"
#include "record_source/RecordSource.h"

namespace calvane_web {

/// The parameter "tracks", such as "video,audio". Throws std::invalid_argument that names what is no track.
std::set<calvane_recording::TrackKind> TakeTracks(Query& query, const std::string& otherwise);

} // namespace calvane_web
