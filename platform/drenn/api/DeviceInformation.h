#pragma once

#include "drenn/Export.h"
#include "drenn/core/Status.h"

/*
 * What this device is. Each field comes from the first of these that knows it:
 *
 *   1. the group "device" of the INI file that DRENN_DEVICE_INFORMATION names, otherwise of
 *      /etc/drenn/device.ini, under the keys model.name, model.number, firmware.version, hardware.version,
 *      serial.number, hardware.id, hardware.family, friendly.name, operating.system and architecture;
 *   2. the device tree (model, compatible, serial-number);
 *   3. DMI (product_name, product_version, product_serial, product_sku, product_family, bios_version);
 *   4. os-release (PRETTY_NAME), the host name and uname (machine).
 *
 * For C and C++.
 *
 * Threads: any; a handle by one thread at a time.
 */

#ifdef __cplusplus
extern "C" {
#endif

typedef struct drenn_api_device_information_initiator* drenn_api_device_information_cookie;

/* Opens a handle, which the caller closes with drenn_api_device_information_initiator_deinit. `address`, `flags`
   and `context` are kept for later and are null, 0 and null; anything else and a null `cookie` are refused with
   DRENN_STATUS_INVALID_ARGUMENT. */
DRENN_API drenn_status drenn_api_device_information_initiator_init(
    const char* address, drenn_api_device_information_cookie* cookie, unsigned int flags, void* context);

/* Fills in ten texts, each the caller's to free(); what nobody knows is null. `service` is "device_information";
   another is refused with DRENN_STATUS_UNKNOWN_SERVICE. DRENN_STATUS_BAD_FILE: the INI file is there and cannot
   be read; the reason is logged as an error under "DeviceInformation". On an error nothing is filled in. */
DRENN_API drenn_status drenn_api_device_information_get_all_send(
    drenn_api_device_information_cookie cookie, const char* service, char** modelName, char** modelNumber,
    char** firmwareVersion, char** hardwareVersion, char** serialNumber, char** hardwareId,
    char** hardwareFamily, char** friendlyName, char** operatingSystem, char** architecture);

/* Closes a handle. Null is refused with DRENN_STATUS_INVALID_ARGUMENT. */
DRENN_API drenn_status
drenn_api_device_information_initiator_deinit(drenn_api_device_information_cookie cookie);

#ifdef __cplusplus
}
#endif
