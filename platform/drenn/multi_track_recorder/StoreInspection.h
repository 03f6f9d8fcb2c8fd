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
    std::uint64_t records = 0;
};

struct RecordingFacts {
    unsigned int id = 0;
    std::string info;
    std::vector<TrackFacts> tracks;
};

/// A file that is kept although nothing in it can be read, until its room is needed.
struct SetAside {
    std::string path;
    std::uint64_t bytes = 0;
};

/// What a catalogue says, and what lies beside it.
struct StoreFacts {
    std::string id; ///< The identity, as 32 hexadecimal digits.
    std::vector<RecordingFacts> recordings;
    std::uint64_t segments = 0;
    std::uint64_t bytes = 0;         ///< In them.
    std::uint64_t unsealed = 0;      ///< Segments that a crash left open; their records are counted, too.
    std::vector<std::string> damage; ///< What is known to be damaged, one line for each place.
    std::vector<SetAside> aside;
};

/// What a check of a store came to.
struct VerifyReport {
    std::vector<std::string> wrong; ///< One line for each thing that is wrong.
    std::vector<std::string>
        notes;           ///< Damage that is known and kept, what was set aside, what could not be checked.
    std::string checked; ///< What was looked at: files, blocks, records.
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
    /// Checks everything; nothing is changed.
    VerifyReport Verify() const;
    /// What can be told of a file that was set aside, one line each. Throws when there is none of this path.
    std::vector<std::string> ShowAside(const std::string& path) const;
    /// Removes what was set aside, and returns the paths.
    std::vector<std::string> EmptyAside() const;
    /// Makes a catalogue from the segments in place of one that is lost or damaged, which is set aside, or the file with
    /// the identity where only that is lost. Returns a line for each thing that could not be taken over. Throws when
    /// both are whole.
    std::vector<std::string> Rebuild() const;
    /// Erases the newest `count` records of a track, of whichever recording, and returns how many are left. Throws
    /// when there is no such track, or it has fewer.
    unsigned int Trim(unsigned int track, unsigned int count) const;

private:
    const std::string storage_;
    const std::string database_;
};

} // namespace drenn::multi_track_recorder
