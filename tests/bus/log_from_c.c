/* The C interface, compiled by a C compiler. */
#include <stdlib.h>

#include "drenn/api/DeviceInformation.h"
#include "drenn/core/Logging.h"
#include "drenn/core/Settings.h"

drenn_status log_from_c(const char* name, const char* text, int number) {
    void* cookie = NULL;
    drenn_status status = drenn_core_logging_init(name, &cookie);
    if (status != DRENN_STATUS_OK) {
        return status;
    }
    drenn_core_log(cookie, DRENN_CORE_LOG_NOTICE, "%s %d", text, number);
    drenn_core_log(cookie, DRENN_CORE_LOG_DEBUG, "not at this level");
    return drenn_core_logging_deinit(cookie);
}

int count_in_settings_from_c(const char* key) {
    int count = 0;
    if (drenn_core_settings_set_default_int_value(key, 41) != DRENN_STATUS_OK ||
        drenn_core_settings_get_int_value(key, &count) != DRENN_STATUS_OK ||
        drenn_core_settings_set_int_value(key, count + 1) != DRENN_STATUS_OK ||
        drenn_core_settings_get_int_value(key, &count) != DRENN_STATUS_OK) {
        return -1;
    }
    return count;
}

int is_device_known_to_c(void) {
    drenn_api_device_information_cookie cookie;
    char* facts[10];
    int i;
    int known = 0;
    if (drenn_api_device_information_initiator_init(NULL, &cookie, 0, NULL) != DRENN_STATUS_OK) {
        return 0;
    }
    if (drenn_api_device_information_get_all_send(cookie, "device_information", &facts[0], &facts[1], &facts[2],
                                                  &facts[3], &facts[4], &facts[5], &facts[6], &facts[7], &facts[8],
                                                  &facts[9]) == DRENN_STATUS_OK) {
        for (i = 0; i < 10; ++i) {
            known += facts[i] != NULL;
            free(facts[i]);
        }
    }
    return drenn_api_device_information_initiator_deinit(cookie) == DRENN_STATUS_OK ? known : 0;
}
