#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "TimeText.h"
#include "fleet/Nats.h"
#include "record_source/RecordSource.h"

namespace calvane_fleet {

/// What the command line says. Times are as they were written.
struct FleetRun {
    NatsOptions nats;
    calvane_recording::Zone zone = calvane_recording::Zone::Utc;
    bool json = false;
    std::string device;
    std::string from = "@0";
    std::string to = "now";
    std::vector<std::string> tracks;
    std::string output;
    std::string format;
    std::string gaps = "keep";
    bool fragmented = false;
    bool force = false;
    std::atomic<bool> isInterrupted{false};
};

// Each throws std::exception when it fails.
void PrintDevices(const FleetRun& run);
void PrintTracks(const FleetRun& run);
void PrintCoverage(const FleetRun& run);
void PrintHistory(const FleetRun& run);
void Watch(const FleetRun& run);
void Export(const FleetRun& run);

} // namespace calvane_fleet
