// Info maps as text, and what stands in them.

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/lexical_cast.hpp>
#include <stdexcept>
#include <vector>

#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/TrackLock.h"

namespace quarn::calvane {

std::string textOf(const boost::posix_time::ptime& time) {
    try {
        return boost::posix_time::to_simple_string(time);
    } catch (const std::exception&) {
        return std::to_string(ticksFromTime(time)) + " ticks";
    }
}

void RecordingManager::serializeTrackInfo(const InfoMap& info, std::string& out) {
    out.clear();
    for (const auto& [key, value] : info) {
        if (key.find('\n') != std::string::npos || value.find('\n') != std::string::npos) {
            throw std::invalid_argument("The info \"" + key + "\" contains a line feed");
        }
        out.append(key).append(1, '\n').append(value).append(1, '\n');
    }
}

void RecordingManager::deserializeTrackInfo(const std::string& in, InfoMap& out) {
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Deserializing info \"%s\"", in.c_str());
    out.clear();
    std::vector<std::string> pieces;
    std::size_t start = 0;
    // What stands behind the last line feed is not a piece.
    for (std::size_t end = in.find('\n'); end != std::string::npos; end = in.find('\n', start)) {
        pieces.push_back(in.substr(start, end - start));
        start = end + 1;
    }
    if (pieces.size() % 2 != 0) {
        throw std::runtime_error("Format error in recorded data: " + std::to_string(pieces.size()) +
                                 " elements found");
    }
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "found %zu key/value pairs", pieces.size() / 2);
    for (std::size_t i = 0; i < pieces.size(); i += 2) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "adding to map: %s == %s", pieces[i].c_str(),
                              pieces[i + 1].c_str());
        out[pieces[i]] = pieces[i + 1];
    }
}

RecordingManager::HistoryEventType RecordingManager::getEventType(const InfoMap& info) {
    return static_cast<HistoryEventType>(boost::lexical_cast<int>(info.at(kHistoryEventType)));
}

void RecordingManager::getTrackInfo(const drenn::multi_track_recorder::Track& track, InfoMap& info) {
    std::string text;
    {
        const TrackLock lock(track);
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "seeking to 0");
        // The read position is no part of what a caller takes for constant.
        const_cast<drenn::multi_track_recorder::Track&>(track).seekg(0);
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "getting info(0)");
        track.getInfo(text);
    }
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "deserializing trackInfo");
    deserializeTrackInfo(text, info);
}

} // namespace quarn::calvane
