#include "api/Tracks.h"

namespace calvane_web {

using calvane_recording::TrackKind;

std::set<TrackKind> TakeTracks(Query& query, const std::string& otherwise) {
    std::set<TrackKind> tracks;
    const std::string names = query.TakeOr("tracks", otherwise) + ",";
    for (std::size_t begin = 0; begin != names.size();) {
        const std::size_t end = names.find(',', begin);
        tracks.insert(calvane_recording::ParseTrack(names.substr(begin, end - begin)));
        begin = end + 1;
    }
    return tracks;
}

} // namespace calvane_web
