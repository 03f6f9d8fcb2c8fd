#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fleet/Nats.h"

namespace calvane_fleet {

struct Device {
    std::string name;
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
    std::string lastStored; ///< When the stream took its last message, as the servers write it.
};

/// All that have a stream, by their names. Throws NatsError.
std::vector<Device> ListDevices(NatsConnection& connection);

/// The same without asking for each one's state, in order.
std::vector<std::string> ListDeviceNames(NatsConnection& connection);

/// Throws std::runtime_error that names the nearest device that there is, if this is none of them; NatsError.
void RequireDevice(NatsConnection& connection, const std::string& device);

} // namespace calvane_fleet
