#include "calvane/recording/internal/InfoMap.h"

#include <boost/lexical_cast.hpp>
#include <stdexcept>
#include <vector>

#include "calvane/recording/internal/RecordingLog.h"
#include "calvane/recording/internal/TrackLock.h"

namespace quarn::calvane {

std::string textFromInfo(const InfoMap& info) {
    std::string text;
    for (const auto& [key, value] : info) {
        if (key.find('\n') != std::string::npos || value.find('\n') != std::string::npos) {
            throw std::invalid_argument("The info \"" + key + "\" contains a line feed");
        }
        text.append(key).append(1, '\n').append(value).append(1, '\n');
    }
    return text;
}

InfoMap infoFromText(const std::string& text) {
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "Deserializing info \"%s\"", text.c_str());
    std::vector<std::string> pieces;
    std::size_t start = 0;
    // What stands behind the last line feed is not a piece.
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    if (pieces.size() % 2 != 0) {
        throw std::runtime_error("Format error in recorded data: " + std::to_string(pieces.size()) +
                                 " elements found");
    }
    CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "found %zu key/value pairs", pieces.size() / 2);
    InfoMap info;
    for (std::size_t i = 0; i < pieces.size(); i += 2) {
        CALVANE_RECORDING_LOG(DRENN_CORE_LOG_DEBUG, "adding to map: %s == %s", pieces[i].c_str(),
                              pieces[i + 1].c_str());
        info[pieces[i]] = pieces[i + 1];
    }
    return info;
}

InfoMap readFirstInfo(const drenn::multi_track_recorder::Track& track) {
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
    return infoFromText(text);
}

int numberUnder(const InfoMap& info, const char* key) {
    return boost::lexical_cast<int>(info.at(key));
}

} // namespace quarn::calvane
