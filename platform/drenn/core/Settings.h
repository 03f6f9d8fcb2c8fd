#pragma once

#include "drenn/Export.h"
#include "drenn/core/Status.h"

/*
 * The device's settings: values by name that survive power loss and that all processes of the device share.
 * They live in the database that the environment variable DRENN_SETTINGS names, otherwise in
 * /var/lib/drenn/settings.db. It is opened at the first call, and made if it is not there. For C and C++.
 *
 * A setting has a value, a default or both; what was set counts before the default, whatever the order of the
 * calls. A setting is an integer or a text; the last call that set it says which. A value that is no integer, or one
 * that an int does not hold, does not count where an integer is read and the default is one; the log tells so.
 *
 * Threads: any, and any number of processes. What one process has set, all others read from then on.
 * Errors:  DRENN_STATUS_INVALID_ARGUMENT for a null pointer and an empty key; DRENN_STATUS_STORAGE when the
 *          database cannot be opened, read or written (the reason is logged as an error under "Settings").
 *          When setting fails, nothing has changed.
 */

#ifdef __cplusplus
extern "C" {
#endif

/* What `key` reads as until it is set. Durable when it returns. */
DRENN_API drenn_status drenn_core_settings_set_default_int_value(const char* key, int value);
DRENN_API drenn_status drenn_core_settings_set_default_string_value(const char* key, const char* value);

/* DRENN_STATUS_UNKNOWN_KEY: neither set nor with a default. DRENN_STATUS_WRONG_TYPE: of the other type, or an
   integer that an int does not hold. `*value` is then left as it is. The text is the caller's to free(). */
DRENN_API drenn_status drenn_core_settings_get_int_value(const char* key, int* value);
DRENN_API drenn_status drenn_core_settings_get_string_value(const char* key, char** value);

/* An integer by its key, for settings that belong together. */
typedef struct drenn_core_int_setting {
    const char* key;
    int value;
} drenn_core_int_setting;

/* Read all as they were at one moment, and set all in one change: all or none. */
DRENN_API drenn_status drenn_core_settings_get_int_values(drenn_core_int_setting* settings,
                                                          unsigned int count);
DRENN_API drenn_status drenn_core_settings_set_int_values(const drenn_core_int_setting* settings,
                                                          unsigned int count);

/* Durable when it returns. Writes nothing when the setting has this value already. */
DRENN_API drenn_status drenn_core_settings_set_int_value(const char* key, int value);
DRENN_API drenn_status drenn_core_settings_set_string_value(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
