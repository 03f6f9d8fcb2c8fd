#include "quarn/core/Logger.h"

#include <cerrno>

#include "quarn/core/internal/LogRegistry.h"
#include "quarn/osa/FormatText.h"
#include "quarn/osa/Warning.h"

namespace quarn::core {

namespace {

void LogWarningOfOsa(const char* text) {
    Logger::GetLogger("osa")->Warning("%s", text);
}

// Runs when the library is loaded, so it also serves programs that never ask for a logger.
[[maybe_unused]] const bool takesWarningsOfOsa = [] {
    osa::SetWarningHandler(&LogWarningOfOsa);
    return true;
}();

} // namespace

Logger* Logger::GetLogger(const std::string& name) {
    return LogRegistry::GetInstance().GetLogger(name);
}

void Logger::SetLevels(const std::string& spec) {
    LogRegistry::GetInstance().SetLevels(LogLevels(spec));
}

void Logger::LogToStderr() {
    LogRegistry::GetInstance().LogToStderr();
}

void Logger::LogToFile(const std::string& path) {
    LogRegistry::GetInstance().LogToFile(path);
}

void Logger::ReopenFile() {
    LogRegistry::GetInstance().ReopenFile();
}

void Logger::LogToSyslog(const std::string& ident) {
    LogRegistry::GetInstance().LogToSyslog(ident);
}

Logger::Logger(const std::string& name, LogLevel level) : name_(name), level_(level) {}

void Logger::Error(const char* format, ...) {
    if (!IsEnabled(LogLevel::Error)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Write(LogLevel::Error, format, arguments);
    va_end(arguments);
}

void Logger::Warning(const char* format, ...) {
    if (!IsEnabled(LogLevel::Warning)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Write(LogLevel::Warning, format, arguments);
    va_end(arguments);
}

void Logger::Information(const char* format, ...) {
    if (!IsEnabled(LogLevel::Information)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Write(LogLevel::Information, format, arguments);
    va_end(arguments);
}

void Logger::Debug(const char* format, ...) {
    if (!IsEnabled(LogLevel::Debug)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Write(LogLevel::Debug, format, arguments);
    va_end(arguments);
}

void Logger::Trace(const char* format, ...) {
    if (!IsEnabled(LogLevel::Trace)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Write(LogLevel::Trace, format, arguments);
    va_end(arguments);
}

void Logger::Log(LogLevel level, const char* format, ...) {
    if (!IsEnabled(level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Write(level, format, arguments);
    va_end(arguments);
}

void Logger::VLog(LogLevel level, const char* format, va_list arguments) {
    if (IsEnabled(level)) {
        Write(level, format, arguments);
    }
}

void Logger::Write(LogLevel level, const char* format, va_list arguments) const {
    const int callersErrno = errno;
    LogRegistry::GetInstance().Write(name_, level, osa::FormatTextV(format, arguments));
    errno = callersErrno;
}

} // namespace quarn::core
