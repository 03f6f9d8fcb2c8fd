#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "TimeText.h"

namespace calvane_recording {

class RecordingClient;

/// What the command line says. Times are as they were written, since "now" is when the command runs.
struct Options {
    bool json = false;     ///< Times in JSON are in UTC, durations are seconds.
    Zone zone = Zone::Utc; ///< Of other times.
    std::string from = "@0";
    std::string to = "now";
    std::string at = "now";
    std::string track; ///< Empty for all of them.
    bool follow = false;
    bool list = false;
    bool fromKey = false;
    // Limits to be set; empty ones stay as they are. Of space in bytes, 0 for none.
    std::string limit;
    std::optional<std::uint64_t> dataSpace;
    std::optional<std::uint64_t> historySpace;
    bool file = false; ///< Retention is that of the settings, whether there is a recorder or not.
};

// Each prints its answer to the standard output stream and throws std::exception when there is none.
void PrintSummary(RecordingClient& client, const Options& options);
void PrintTracks(RecordingClient& client, const Options& options);
void PrintHistory(RecordingClient& client, const Options& options);
void PrintState(RecordingClient& client, const Options& options);
void PrintCoverage(RecordingClient& client, const Options& options);
void PrintAttributes(RecordingClient& client, const Options& options);
/// Throws also when some of what was to be read was erased meanwhile; the rest has been written.
void ReadRecords(RecordingClient& client, const Options& options);
void Watch(RecordingClient& client, const Options& options);
void PrintStatus(RecordingClient& client, const Options& options);
/// Of bytes: "1.5 GB".
std::string BytesText(std::uint64_t bytes);
/// Through the recorder; without one they work on the settings.
void GetRetention(const Options& options);
void SetRetention(const Options& options);

} // namespace calvane_recording
