#include "drenn/api/DeviceInformation.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

#include "drenn/api/internal/DeviceFacts.h"
#include "quarn/core/Logger.h"

// Nothing has to be kept between the calls; the handle is there for those who forget to open or close it.
struct drenn_api_device_information_initiator {};

namespace {

using drenn::api::DeviceFact;
using drenn::api::DeviceFacts;

constexpr auto kCount = static_cast<std::size_t>(DeviceFact::Count);

DeviceFacts ReadFacts() {
    const char* const file = std::getenv("DRENN_DEVICE_INFORMATION");
    return DeviceFacts(file != nullptr && *file != '\0' ? file : "/etc/drenn/device.ini", "");
}

/// All of them, or nothing.
drenn_status CopyFacts(const DeviceFacts& facts, const std::array<char**, kCount>& fields) {
    std::array<char*, kCount> copies{};
    for (std::size_t place = 0; place < kCount; ++place) {
        const auto& fact = facts[static_cast<DeviceFact>(place)];
        if (fact && (copies[place] = strdup(fact->c_str())) == nullptr) {
            for (char* const copy : copies) {
                std::free(copy);
            }
            return DRENN_STATUS_NO_MEMORY;
        }
    }
    for (std::size_t place = 0; place < kCount; ++place) {
        *fields[place] = copies[place];
    }
    return DRENN_STATUS_OK;
}

} // namespace

drenn_status drenn_api_device_information_initiator_init(const char* address,
                                                         drenn_api_device_information_cookie* cookie,
                                                         unsigned int flags, void* context) {
    if (address != nullptr || cookie == nullptr || flags != 0 || context != nullptr) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    *cookie = new (std::nothrow) drenn_api_device_information_initiator;
    return *cookie == nullptr ? DRENN_STATUS_NO_MEMORY : DRENN_STATUS_OK;
}

drenn_status drenn_api_device_information_get_all_send(
    drenn_api_device_information_cookie cookie, const char* service, char** modelName, char** modelNumber,
    char** firmwareVersion, char** hardwareVersion, char** serialNumber, char** hardwareId,
    char** hardwareFamily, char** friendlyName, char** operatingSystem, char** architecture) {
    const std::array<char**, kCount> fields{modelName,       modelNumber, firmwareVersion, hardwareVersion,
                                            serialNumber,    hardwareId,  hardwareFamily,  friendlyName,
                                            operatingSystem, architecture};
    for (char** const field : fields) {
        if (field == nullptr) {
            return DRENN_STATUS_INVALID_ARGUMENT;
        }
    }
    if (cookie == nullptr || service == nullptr) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    if (std::strcmp(service, "device_information") != 0) {
        return DRENN_STATUS_UNKNOWN_SERVICE;
    }
    try {
        return CopyFacts(ReadFacts(), fields);
    } catch (const std::bad_alloc&) {
        return DRENN_STATUS_NO_MEMORY;
    } catch (const std::exception& problem) {
        quarn::core::Logger::GetLogger("DeviceInformation")->Error("%s", problem.what());
        return DRENN_STATUS_BAD_FILE;
    }
}

drenn_status drenn_api_device_information_initiator_deinit(drenn_api_device_information_cookie cookie) {
    if (cookie == nullptr) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    delete cookie;
    return DRENN_STATUS_OK;
}
