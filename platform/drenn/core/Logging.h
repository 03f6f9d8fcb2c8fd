#pragma once

#include <stdarg.h>

#include "drenn/Export.h"
#include "drenn/core/Status.h"

/*
 * Logging under a name, to where all loggers of the process write and with the levels set for them
 * (quarn/core/Logger.h). For C and C++.
 *
 * Threads: any, for every operation.
 */

#ifdef __cplusplus
extern "C" {
#endif

/* The severities of syslog (RFC 5424, section 6.2.1). */
typedef enum drenn_core_log_priority {
    DRENN_CORE_LOG_EMERGENCY = 0,
    DRENN_CORE_LOG_ALERT = 1,
    DRENN_CORE_LOG_CRITICAL = 2,
    DRENN_CORE_LOG_ERROR = 3,
    DRENN_CORE_LOG_WARNING = 4,
    DRENN_CORE_LOG_NOTICE = 5,
    DRENN_CORE_LOG_INFO = 6,
    DRENN_CORE_LOG_DEBUG = 7
} drenn_core_log_priority;

/* Opens a handle to log under `name` with. The caller gives it back with drenn_core_logging_deinit.
   DRENN_STATUS_INVALID_ARGUMENT: a pointer is null or the name is empty. */
DRENN_API drenn_status drenn_core_logging_init(const char* name, void** cookie);

/* Closes a handle. Lines logged before are written. Null is refused with DRENN_STATUS_INVALID_ARGUMENT. */
DRENN_API drenn_status drenn_core_logging_deinit(void* cookie);

/* Logs one message, printf-style. A message that the level does not let pass costs a comparison. A null handle
   logs nothing. Priorities 0 to 3 are written as errors, 5 and 6 as information. */
DRENN_API void drenn_core_log(void* cookie, drenn_core_log_priority priority, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
DRENN_API void drenn_core_vlog(void* cookie, drenn_core_log_priority priority, const char* format,
                               va_list arguments) __attribute__((format(printf, 3, 0)));

/* 1 if a message of this priority would be written, otherwise 0. Worth asking before costly arguments are made. */
DRENN_API int drenn_core_log_enabled(void* cookie, drenn_core_log_priority priority);

#ifdef __cplusplus
}
#endif
