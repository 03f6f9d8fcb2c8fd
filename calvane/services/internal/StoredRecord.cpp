#include <stdexcept>

#include "calvane/recording/RecordingManager.h"
#include "calvane/services/internal/StoredRecord.h"

namespace quarn::calvane {

StoredRecord::StoredRecord(drenn::multi_track_recorder::Track& track, unsigned int index) {
    track.seekg(index);
    track >> _record;
    if (!RecordingManager::getPlaybackInfo(_record, _data, _size, _header)) {
        throw std::runtime_error("Parse error in recorded data");
    }
}

} // namespace quarn::calvane
