#include "FleetKnowledge.h"

#include <limits>
#include <stdexcept>

#include "fleet/DeviceList.h"
#include "fleet/FleetSource.h"

namespace calvane_web {
namespace {

using calvane_fleet::DeviceStream;
using calvane_fleet::FleetSource;
using calvane_fleet::JetStreamError;
using calvane_fleet::NatsConnection;
using calvane_fleet::NatsError;
using calvane_recording::Span;
using calvane_recording::Time;
using calvane_recording::TrackKind;

constexpr std::chrono::milliseconds kDevicesTime{5000};
constexpr std::chrono::milliseconds kCoverageTime{2000};
constexpr std::size_t kMostDevicesBytes = std::size_t{8} * 1024 * 1024;
constexpr std::size_t kMostCoverageBytes = std::size_t{16} * 1024 * 1024;
constexpr std::size_t kMostHistoryBytes = std::size_t{8} * 1024 * 1024;
constexpr Span kAlways{0, std::numeric_limits<Time>::max()};

std::size_t WeightOfNames(const std::vector<std::string>& names) {
    std::size_t weight = 0;
    for (const std::string& name : names) {
        weight += sizeof(std::string) + name.size();
    }
    return weight;
}

std::size_t WeightOfCoverage(const DeviceCoverage& coverage) {
    return sizeof coverage + coverage.intervals.capacity() * sizeof coverage.intervals[0];
}

std::size_t WeightOfHistory(const DeviceHistory& history) {
    return sizeof history + history.events.capacity() * sizeof history.events[0];
}

} // namespace

FleetKnowledge::FleetKnowledge(FleetConnections& connections)
    : connections_(connections),
      devices_(kDevicesTime, kMostDevicesBytes, &WeightOfNames),
      coverage_(kCoverageTime, kMostCoverageBytes, &WeightOfCoverage),
      history_(kCoverageTime, kMostHistoryBytes, &WeightOfHistory) {}

/// What concerns one device must not hide the others: it becomes the answer's problem, unless the servers answer nothing else.
template <class Value, typename Question>
Value FleetKnowledge::AskDevice(const std::string& device, const Question& question) {
    Value value;
    connections_.Ask([&](NatsConnection& connection) {
        value = {};
        try {
            DeviceStream stream(connection, device);
            question(stream, value);
            return;
        } catch (const JetStreamError& problem) {
            value = {};
            if (problem.Code() == JetStreamError::kStreamNotFound) {
                value.problem = "The fleet has no device \"" + device + "\"";
                return;
            }
            value.problem = problem.what();
        } catch (const NatsError& problem) {
            if (connection.IsClosed()) {
                throw;
            }
            value = {};
            value.problem = problem.what();
        } catch (const std::runtime_error& problem) { // Messages that make no sense.
            value = {};
            value.problem = problem.what();
            return;
        }
        connection.Ask("INFO"); // A stream without a leader, or servers that answer nobody.
    });
    return value;
}

std::shared_ptr<const std::vector<std::string>> FleetKnowledge::GetDevices() {
    return devices_.Get("", [this] {
        std::vector<std::string> names;
        connections_.Ask([&names](NatsConnection& connection) { names = ListDeviceNames(connection); });
        return names;
    });
}

std::shared_ptr<const DeviceCoverage> FleetKnowledge::GetCoverage(const std::string& device,
                                                                  TrackKind track) {
    return coverage_.Get(device + "." + calvane_recording::NameOf(track), [&] {
        return AskDevice<DeviceCoverage>(device, [track](DeviceStream& stream, DeviceCoverage& coverage) {
            FleetSource source(stream);
            coverage.bytes = stream.GetState().bytes;
            coverage.span = source.GetSpan(track);
            coverage.intervals = source.GetCoverage(track, kAlways);
        });
    });
}

std::shared_ptr<const DeviceHistory> FleetKnowledge::GetHistory(const std::string& device) {
    return history_.Get(device, [&] {
        return AskDevice<DeviceHistory>(device, [](DeviceStream& stream, DeviceHistory& history) {
            history.events = FleetSource(stream).GetHistory(kAlways);
        });
    });
}

} // namespace calvane_web
