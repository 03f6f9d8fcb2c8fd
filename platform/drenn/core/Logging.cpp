#include "drenn/core/Logging.h"

#include <new>

#include "quarn/core/Logger.h"

namespace {

using quarn::core::Logger;
using quarn::core::LogLevel;

// Loggers belong to the process, so that a handle is the logger itself.
Logger* LoggerOf(void* cookie) {
    return static_cast<Logger*>(cookie);
}

LogLevel LevelOf(drenn_core_log_priority priority) {
    if (priority <= DRENN_CORE_LOG_ERROR) {
        return LogLevel::Error;
    }
    if (priority == DRENN_CORE_LOG_WARNING) {
        return LogLevel::Warning;
    }
    return priority <= DRENN_CORE_LOG_INFO ? LogLevel::Information : LogLevel::Debug;
}

/// The levels have the numbers of the priorities, with none between warning and information; 0 lets nothing pass.
bool Passes(void* cookie, drenn_core_log_priority priority) {
    if (cookie == nullptr) {
        return false;
    }
    const int level = static_cast<int>(LoggerOf(cookie)->GetLevel());
    return static_cast<int>(priority) <= level && level != static_cast<int>(LogLevel::Off);
}

} // namespace

drenn_status drenn_core_logging_init(const char* name, void** cookie) {
    if (name == nullptr || *name == '\0' || cookie == nullptr) {
        return DRENN_STATUS_INVALID_ARGUMENT;
    }
    try {
        *cookie = Logger::GetLogger(name);
        return DRENN_STATUS_OK;
    } catch (const std::exception&) {
        return DRENN_STATUS_NO_MEMORY;
    }
}

drenn_status drenn_core_logging_deinit(void* cookie) {
    return cookie == nullptr ? DRENN_STATUS_INVALID_ARGUMENT : DRENN_STATUS_OK;
}

int drenn_core_log_enabled(void* cookie, drenn_core_log_priority priority) {
    return Passes(cookie, priority) ? 1 : 0;
}

void drenn_core_log(void* cookie, drenn_core_log_priority priority, const char* format, ...) {
    if (!Passes(cookie, priority)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    drenn_core_vlog(cookie, priority, format, arguments);
    va_end(arguments);
}

void drenn_core_vlog(void* cookie, drenn_core_log_priority priority, const char* format, va_list arguments) {
    if (cookie == nullptr || format == nullptr) {
        return;
    }
    try {
        LoggerOf(cookie)->VLog(LevelOf(priority), format, arguments);
    } catch (const std::exception&) {
        // Out of memory: the line is lost, and a caller in C could not be told with an exception.
    }
}
