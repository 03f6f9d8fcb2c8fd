#include "fleet/DeviceList.h"

#include <algorithm>
#include <stdexcept>

#include "calvane/config/NearestName.h"
#include "fleet/DeviceStream.h"
#include "fleet/FleetFormat.h"

namespace calvane_fleet {
namespace {

using nlohmann::json;

/// Calls back with each of the pages that an operation answers in.
template <typename OnItem>
void ForEachItem(NatsConnection& connection, const char* operation, const OnItem& onItem) {
    for (std::size_t offset = 0, total = 1; offset < total;) {
        const json page = connection.Ask(operation, {{"offset", offset}});
        const auto items = page.find("streams");
        if (items == page.end() || items->empty()) {
            break;
        }
        for (const json& item : *items) {
            onItem(item);
        }
        offset += items->size();
        total = page.value("total", std::size_t{0});
    }
}

} // namespace

std::vector<Device> ListDevices(NatsConnection& connection) {
    std::vector<Device> devices;
    ForEachItem(connection, "STREAM.LIST", [&devices](const json& stream) {
        if (const auto name = DeviceOf(stream.at("config").at("name"))) {
            const json& state = stream.at("state");
            devices.push_back({*name, state.at("messages"), state.at("bytes"), state.value("last_ts", "")});
        }
    });
    std::sort(devices.begin(), devices.end(),
              [](const Device& a, const Device& b) { return a.name < b.name; });
    return devices;
}

std::vector<std::string> ListDeviceNames(NatsConnection& connection) {
    std::vector<std::string> names;
    ForEachItem(connection, "STREAM.NAMES", [&names](const json& stream) {
        if (auto name = DeviceOf(stream)) {
            names.push_back(std::move(*name));
        }
    });
    std::sort(names.begin(), names.end());
    return names;
}

void RequireDevice(NatsConnection& connection, const std::string& device) {
    try {
        DeviceStream(connection, device).GetState();
        return;
    } catch (const JetStreamError& problem) {
        if (problem.Code() != JetStreamError::kStreamNotFound) {
            throw;
        }
    }
    throw std::runtime_error("The fleet has no device \"" + device + "\"" +
                             quarn::calvane::SuggestName(device, ListDeviceNames(connection)) +
                             ": see calvane-fleet devices");
}

} // namespace calvane_fleet
