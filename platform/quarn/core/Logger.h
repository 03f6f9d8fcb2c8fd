#pragma once

#include <atomic>
#include <cstdarg>
#include <string>

#include "quarn/Export.h"
#include "quarn/core/LogLevel.h"

namespace quarn::core {

/// Writes messages under a name to the process's one log target. A message that the logger's level does not
/// let pass costs a comparison: nothing is formatted, locked or allocated.
///
/// A line on standard error or in a file holds local time with microseconds, level, thread id, name and text:
///
///     2024-05-17 09:30:00.000125 warning [4711] QueuePlugin: Queue is full
///
/// The text may have any length and is written unchanged, line ends included.
///
/// Threads:   any, for every operation. Lines of different threads never mix, also not while the target
///            changes.
/// Ownership: loggers belong to the process and are never deleted.
/// Errors:    logging itself never throws for a target that fails: the first failure is reported on standard error,
///            and the next one only after a line went well. It leaves errno alone.
/// Lifetime:   usable from static constructors to static destructors, and by threads that outlive main.
class QUARN_API Logger {
public:
    /// The logger of this name, made at the first call; the same one every time.
    static Logger* GetLogger(const std::string& name);

    /// Sets the levels of all loggers, those made later included, and forgets what the last call set.
    /// `spec` is a list such as "QueuePlugin=debug,*=warning": a level alone, or with the name *, is for all
    /// loggers that the list does not name (warning, if the list has none). Levels are off, error, warning,
    /// information (or info), debug and trace, in small or capital letters. The later of two pieces for one
    /// name counts. A blank text sets all to warning. Throws Exception that names the piece that is wrong,
    /// and then changes nothing.
    static void SetLevels(const std::string& spec);

    /// Directs all lines to standard error; so it is from the start. No thread waits for it: what it does not
    /// take at once is kept, up to 1 MiB, and written by a thread in the background. exit() waits for that.
    /// Where systemd's journal reads it (JOURNAL_STREAM, see systemd.exec(5)), a line begins with its priority,
    /// <3> to <7> (sd-daemon(3)), and without the time, which the journal adds.
    static void LogToStderr();
    /// Directs all lines to the end of the file at `path`, which is made if need be; its folder is not.
    /// A line is in the file when the call that logs it returns.
    /// Throws Exception with path and system error when the file cannot be opened; the target then stays.
    static void LogToFile(const std::string& path);
    /// Opens the file that lines go to anew at its path, as is right after somebody has renamed it. Does nothing
    /// when lines go elsewhere. Throws as LogToFile does; lines then still go to the old file.
    static void ReopenFile();
    /// Directs all messages to the system log under the name `ident`; Trace becomes a debug message there.
    static void LogToSyslog(const std::string& ident);

    const std::string& GetName() const { return name_; }
    LogLevel GetLevel() const { return level_.load(std::memory_order_relaxed); }
    /// Whether a message of this level passes. Worth asking before costly arguments are computed.
    bool IsEnabled(LogLevel level) const { return level <= GetLevel(); }

    [[gnu::format(printf, 2, 3)]] void Error(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] void Warning(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] void Information(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] void Debug(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] void Trace(const char* format, ...);
    /// `level` is that of the message and not Off.
    [[gnu::format(printf, 3, 4)]] void Log(LogLevel level, const char* format, ...);
    [[gnu::format(printf, 3, 0)]] void VLog(LogLevel level, const char* format, va_list arguments);

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

private:
    friend class LogRegistry;
    Logger(const std::string& name, LogLevel level);
    ~Logger() = default;

    [[gnu::format(printf, 3, 0)]] void Write(LogLevel level, const char* format, va_list arguments) const;

    const std::string name_;
    std::atomic<LogLevel> level_;
};

} // namespace quarn::core
