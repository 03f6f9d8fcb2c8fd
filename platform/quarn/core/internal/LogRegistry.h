#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "quarn/core/internal/LogLevels.h"
#include "quarn/osa/Mutex.h"

namespace spdlog::sinks {
class sink;
}

namespace quarn::core {

class LogCapture;
class Logger;

/// What all loggers of the process share: their names, their levels and the place where the lines go.
///
/// Threads:  any.
/// Lifetime: made at first use and never destroyed, because static destructors and left-over threads log too.
class LogRegistry {
public:
    static LogRegistry& GetInstance();

    Logger* GetLogger(const std::string& name);
    void SetLevels(const LogLevels& levels);

    void LogToStderr();
    void LogToFile(const std::string& path);
    void ReopenFile();
    void LogToSyslog(const std::string& ident);

    /// The capture added last, of those that are left, gets all lines and sets all levels.
    void AddCapture(LogCapture* capture);
    /// On return no line is on its way to the capture any more.
    void RemoveCapture(LogCapture* capture);

    void Write(const std::string& logger, LogLevel level, const std::string& text);

private:
    LogRegistry();
    LogLevel GetLevelUnlocked(const std::string& logger) const;
    void ApplyLevelsUnlocked();
    void RedirectUnlocked();
    void ReplaceTarget(std::shared_ptr<spdlog::sinks::sink> target, const std::string& file);
    void FlushTargetUnlocked();
    void ReportFailureUnlocked(const char* what);

    // Taken before outputLock_, and never held while a line is written: looking up a logger does not wait for
    // a slow device.
    osa::Mutex loggersLock_{"LogRegistryLoggers"};
    std::map<std::string, Logger*> loggers_;
    LogLevels levels_;
    std::vector<LogCapture*> captures_;

    osa::Mutex outputLock_{"LogRegistryOutput"};
    std::shared_ptr<spdlog::sinks::sink> target_;
    std::string file_;              // The target's path; empty when it is no file.
    LogCapture* capture_ = nullptr; // The last of captures_, or null.
    bool failed_ = false;
};

} // namespace quarn::core
