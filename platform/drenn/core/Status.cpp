#include "drenn/core/Status.h"

const char* drenn_status_text(drenn_status status) {
    switch (status) {
        case DRENN_STATUS_OK:
            return "success";
        case DRENN_STATUS_INVALID_ARGUMENT:
            return "invalid argument";
        case DRENN_STATUS_UNKNOWN_KEY:
            return "unknown setting without default";
        case DRENN_STATUS_WRONG_TYPE:
            return "setting of another type";
        case DRENN_STATUS_STORAGE:
            return "settings storage failed";
        case DRENN_STATUS_NO_MEMORY:
            return "out of memory";
        case DRENN_STATUS_UNKNOWN_SERVICE:
            return "unknown service";
        case DRENN_STATUS_BAD_FILE:
            return "unreadable file";
        default:
            return "unknown status";
    }
}
