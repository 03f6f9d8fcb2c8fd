#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "FleetConnections.h"
#include "RecordingClient.h"
#include "ShortCache.h"
#include "fleet/DeviceStream.h"
#include "record_source/RecordSource.h"

namespace calvane_web {

/// What the stream of a device has of a track.
struct DeviceCoverage {
    std::string problem; ///< Why nothing is known; it concerns this device alone.
    calvane_recording::Span span;
    std::vector<calvane_recording::Interval> intervals;
    std::uint64_t bytes = 0; ///< Of the whole stream.
};

struct DeviceHistory {
    std::string problem;
    std::vector<calvane_recording::Event> events;
};

/// What the fleet's streams have, as it was some seconds ago.
///
/// Threads: any. So many questions to the servers are under way at once as there are connections.
/// Errors:  those of FleetConnections.
class FleetKnowledge {
public:
    explicit FleetKnowledge(FleetConnections& connections);

    /// Names in order.
    std::shared_ptr<const std::vector<std::string>> GetDevices();
    std::shared_ptr<const DeviceCoverage> GetCoverage(const std::string& device,
                                                      calvane_recording::TrackKind track);
    std::shared_ptr<const DeviceHistory> GetHistory(const std::string& device);
    /// Bytes that it holds.
    std::size_t Weight() const { return devices_.Weight() + coverage_.Weight() + history_.Weight(); }

private:
    template <class Value, typename Question>
    Value AskDevice(const std::string& device, const Question& question);

    FleetConnections& connections_;
    ShortCache<std::vector<std::string>> devices_;
    ShortCache<DeviceCoverage> coverage_;
    ShortCache<DeviceHistory> history_;
};

} // namespace calvane_web
