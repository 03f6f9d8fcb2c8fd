#pragma once

#include <string>
#include <vector>

#include "drenn/multi_track_recorder/StoreInspection.h"
#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

/// Checks every invariant of docs/design/recording-store.md and every checksum of a store that nobody has open,
/// without changing it. Lines of invariants begin with "Invariant N: ". Throws std::runtime_error if there is no store,
/// or a later program made it.
///
/// What a crash may leave for the next opening to tidy up, such as the unsealed end of a segment, is not wrong.
VerifyReport ExamineStore(IFileSystem& files, const std::string& storage, const std::string& database);

/// What is wrong, alone.
std::vector<std::string> VerifyStore(IFileSystem& files, const std::string& storage,
                                     const std::string& database);

} // namespace drenn::multi_track_recorder
