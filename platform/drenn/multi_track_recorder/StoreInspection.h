#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "drenn/Export.h"
#include "drenn/multi_track_recorder/DataFormatVersion.h"

namespace drenn::multi_track_recorder {

struct TrackFacts {
    unsigned int id = 0;
    bool isSparse = false;
    DataFormatVersion format;
    std::uint64_t records = 0; ///< In sealed segments.
};

struct RecordingFacts {
    unsigned int id = 0;
    std::string info;
    std::vector<TrackFacts> tracks;
};

/// What a catalogue says, and what lies beside it.
struct StoreFacts {
    std::string id; ///< The identity, as 32 hexadecimal digits.
    std::vector<RecordingFacts> recordings;
    std::uint64_t segments = 0; ///< Sealed ones.
    std::uint64_t bytes = 0;    ///< In them.
    std::uint64_t unsealed =
        0; ///< Segments whose records are counted when the store is opened the next time.
};

/// Looks at a store that no process has open, and repairs it.
///
/// Threads: one at a time.
/// Errors:  std::runtime_error when there is no store, or it is in use, or a file cannot be read.
class DRENN_API StoreInspection {
public:
    /// `folder` has `data` and `database`.
    explicit StoreInspection(const std::string& folder);

    StoreFacts Describe() const;
    /// A line for each thing that is wrong; nothing is changed.
    std::vector<std::string> Verify() const;
    /// Makes a catalogue from the segments in place of one that is lost or damaged, which is kept under another
    /// name. Returns a line for each thing that could not be taken over. Throws when the catalogue is whole.
    std::vector<std::string> Rebuild() const;
    /// Erases the newest `count` records of a track, of whichever recording, and returns how many are left. Throws
    /// when there is no such track, or it has fewer.
    unsigned int Trim(unsigned int track, unsigned int count) const;

private:
    const std::string storage_;
    const std::string database_;
};

} // namespace drenn::multi_track_recorder
