#include "calvane/recording/internal/card/DeviceIdentity.h"

#include <cstdlib>

#include "calvane/recording/DrennApiException.h"
#include "drenn/api/DeviceInformation.h"

namespace quarn::calvane {
namespace {

/// The texts that the device information hands out, and its handle; given back when it goes.
class DeviceInformation {
public:
    DeviceInformation() {
        CALVANE_DRENN_CALL(drenn_api_device_information_initiator_init(NULL, &cookie, 0, NULL)); // NOLINT
    }
    ~DeviceInformation() {
        for (char* text : {modelName, modelNumber, firwareVersion, hardwareVersion, serialNumber, hardwareID,
                           hardwareFamily, friendlyName, opSys, architecture}) {
            std::free(text);
        }
        drenn_api_device_information_initiator_deinit(cookie);
    }
    DeviceInformation(const DeviceInformation&) = delete;
    DeviceInformation& operator=(const DeviceInformation&) = delete;

    void fetch() {
        // As the text of the error has it: no blank behind the parenthesis.
        // clang-format off
        CALVANE_DRENN_CALL(drenn_api_device_information_get_all_send(cookie, "device_information",
                &modelName, &modelNumber, &firwareVersion, &hardwareVersion, &serialNumber, &hardwareID,
                &hardwareFamily, &friendlyName, &opSys, &architecture));
        // clang-format on
    }

    drenn_api_device_information_cookie cookie = nullptr;
    char* modelName = nullptr;
    char* modelNumber = nullptr;
    char* firwareVersion = nullptr; // Spelled as error texts have it.
    char* hardwareVersion = nullptr;
    char* serialNumber = nullptr;
    char* hardwareID = nullptr;
    char* hardwareFamily = nullptr;
    char* friendlyName = nullptr;
    char* opSys = nullptr;
    char* architecture = nullptr;
};

} // namespace

std::string readDeviceIdentity() {
    DeviceInformation device;
    device.fetch();
    // Nothing follows a field that is not known.
    std::string text = device.modelName != nullptr ? device.modelName + std::string(",") : std::string();
    if (device.modelName != nullptr && device.serialNumber != nullptr) {
        text += device.serialNumber;
    }
    return text;
}

} // namespace quarn::calvane
