#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>

namespace drenn::api {

/// The ten things that are known of a device, in the order in which the C interface gives them.
enum class DeviceFact : std::size_t {
    ModelName,
    ModelNumber,
    FirmwareVersion,
    HardwareVersion,
    SerialNumber,
    HardwareId,
    HardwareFamily,
    FriendlyName,
    OperatingSystem,
    Architecture,
    Count
};

/// What is known of this device; a fact that nobody knows is not set.
class DeviceFacts {
public:
    /// `file`: an INI file, which need not be there; `root`: where /proc, /sys and /etc are looked for.
    /// Throws quarn::osa::Exception when the file is there and cannot be read.
    DeviceFacts(const std::string& file, const std::string& root);

    const std::optional<std::string>& operator[](DeviceFact fact) const {
        return facts_[static_cast<std::size_t>(fact)];
    }

private:
    void Add(DeviceFact fact, std::string value);
    void AddFile(const std::string& file);
    void AddDeviceTree(const std::string& root);
    void AddDmi(const std::string& root);
    void AddSystem(const std::string& root);

    std::array<std::optional<std::string>, static_cast<std::size_t>(DeviceFact::Count)> facts_;
};

} // namespace drenn::api
