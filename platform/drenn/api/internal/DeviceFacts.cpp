#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <utility>

#include "drenn/api/internal/DeviceFacts.h"
#include "quarn/core/IniFile.h"

namespace drenn::api {
namespace {

constexpr std::array<const char*, static_cast<std::size_t>(DeviceFact::Count)> kFileKeys{
    "model.name",  "model.number",    "firmware.version", "hardware.version", "serial.number",
    "hardware.id", "hardware.family", "friendly.name",    "operating.system", "architecture"};

// What makers of boards leave in DMI when they do not fill it in.
constexpr std::array<const char*, 6> kPlaceholders{"To Be Filled By O.E.M.", "To be filled by O.E.M.",
                                                   "Default string",         "Not Specified",
                                                   "System Product Name",    "None"};

std::string ReadAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// The first text of a list as the device tree has them, each ended by a zero byte; or a first line.
std::string FirstOf(const std::string& text) {
    return text.substr(0, text.find_first_of(std::string("\0\n", 2)));
}

std::string Unquoted(std::string value) {
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
        value = value.substr(1, value.size() - 2);
    }
    return value;
}

} // namespace

DeviceFacts::DeviceFacts(const std::string& file, const std::string& root) {
    AddFile(file);
    AddDeviceTree(root);
    AddDmi(root);
    AddSystem(root);
}

void DeviceFacts::Add(DeviceFact fact, std::string value) {
    value.erase(value.find_last_not_of(" \t\r\n") + 1);
    auto& known = facts_[static_cast<std::size_t>(fact)];
    if (!known && !value.empty()) {
        known = std::move(value);
    }
}

void DeviceFacts::AddFile(const std::string& file) {
    if (access(file.c_str(), F_OK) != 0 && errno == ENOENT) {
        return;
    }
    const quarn::core::IniFile ini(file);
    for (std::size_t place = 0; place < kFileKeys.size(); ++place) {
        Add(static_cast<DeviceFact>(place), ini.GetValueOrDefault("device", kFileKeys[place]));
    }
}

void DeviceFacts::AddDeviceTree(const std::string& root) {
    const std::string folder = root + "/proc/device-tree/";
    Add(DeviceFact::ModelName, FirstOf(ReadAll(folder + "model")));
    Add(DeviceFact::SerialNumber, FirstOf(ReadAll(folder + "serial-number")));
    // The board first, then what it is compatible with; the last one is the family of its processor.
    std::string compatible = ReadAll(folder + "compatible");
    Add(DeviceFact::HardwareId, FirstOf(compatible));
    compatible.erase(compatible.find_last_not_of('\0') + 1);
    Add(DeviceFact::HardwareFamily, compatible.substr(compatible.rfind('\0') + 1));
}

void DeviceFacts::AddDmi(const std::string& root) {
    const auto add = [&](DeviceFact fact, const char* file) {
        const std::string value = FirstOf(ReadAll(root + "/sys/class/dmi/id/" + file));
        if (std::find(kPlaceholders.begin(), kPlaceholders.end(), value) == kPlaceholders.end()) {
            Add(fact, value);
        }
    };
    add(DeviceFact::ModelName, "product_name");
    add(DeviceFact::ModelNumber, "product_sku");
    add(DeviceFact::FirmwareVersion, "bios_version");
    add(DeviceFact::HardwareVersion, "product_version");
    add(DeviceFact::SerialNumber, "product_serial");
    add(DeviceFact::HardwareId, "board_name");
    add(DeviceFact::HardwareFamily, "product_family");
}

void DeviceFacts::AddSystem(const std::string& root) {
    const std::string release = "\n" + ReadAll(root + "/etc/os-release");
    const std::string key = "\nPRETTY_NAME=";
    if (const auto place = release.find(key); place != std::string::npos) {
        Add(DeviceFact::OperatingSystem, Unquoted(FirstOf(release.substr(place + key.size()))));
    }
    utsname system{};
    if (uname(&system) == 0) {
        Add(DeviceFact::FriendlyName, system.nodename);
        Add(DeviceFact::OperatingSystem, system.sysname);
        Add(DeviceFact::Architecture, system.machine);
    }
}

} // namespace drenn::api
