#pragma once

#include <cstdint>
#include <string>

namespace drenn::multi_track_recorder {

/// How a store is opened. Programs set the first three through MultiTrackRecorder::create; the others have one
/// good value and are here so that tests reach the edges quickly.
struct StoreOptions {
    std::string storage;  ///< The folder of the segments.
    std::string database; ///< The folder of the catalogue.
    unsigned maxPercent = 98;
    std::uint32_t segmentBytes = 16U * 1024 * 1024;
    std::uint32_t commitMs = 200; ///< Between two writes of what was appended.
    std::uint32_t syncMs = 800;   ///< Between two syncs.
    bool readOnly = false;  ///< Nothing on the device is changed, not even to recover what a crash left.
    bool background = true; ///< Without it no thread is started; Commit, Sync and Keep do their work.
};

} // namespace drenn::multi_track_recorder
