#pragma once

#include <string>
#include <vector>

#include "drenn/multi_track_recorder/internal/io/FileSystem.h"

namespace drenn::multi_track_recorder {

/// Makes a catalogue from the segments in place of one that is lost or damaged, which is set aside, and the file with the
/// identity if that is lost. The new one is whole and durable beside the old one before it takes its place. Returns a
/// line for each thing that could not be taken over.
///
/// Errors: std::runtime_error when the catalogue and the identity are whole, the store is in use, a later program made
///         it, there is nothing to go by, or there is no room, with the bytes that it takes.
std::vector<std::string> RebuildStore(IFileSystem& files, const std::string& storage,
                                      const std::string& database);

} // namespace drenn::multi_track_recorder
