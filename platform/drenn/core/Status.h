#pragma once

#include "drenn/Export.h"

/* What every operation of the C interface returns. For C and C++. */

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned int drenn_status;

enum {
    DRENN_STATUS_OK = 0,
    DRENN_STATUS_INVALID_ARGUMENT = 1, /* A null pointer, an empty name, a value out of its range. */
    DRENN_STATUS_UNKNOWN_KEY = 2,      /* There is no setting of that name, and no default. */
    DRENN_STATUS_WRONG_TYPE = 3,       /* The setting is there and is of the other type. */
    DRENN_STATUS_STORAGE = 4,          /* The settings store cannot be opened, read or written. */
    DRENN_STATUS_NO_MEMORY = 5,
    DRENN_STATUS_UNKNOWN_SERVICE = 6, /* No service of that name can be asked. */
    DRENN_STATUS_BAD_FILE = 7         /* A file that describes the device is there and cannot be read. */
};

/* What a status means, in English and without a line end. Never null, also not for numbers that are not above;
   valid as long as the process lives. */
DRENN_API const char* drenn_status_text(drenn_status status);

#ifdef __cplusplus
}
#endif
