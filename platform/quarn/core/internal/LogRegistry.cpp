#include "quarn/core/internal/LogRegistry.h"

#include <fcntl.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "quarn/core/LogCapture.h"
#include "quarn/core/Logger.h"
#include "quarn/core/internal/Console.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/FormatText.h"
#include "quarn/osa/MutexAutoLock.h"

namespace quarn::core {

using osa::MutexAutoLock;
using SinkPointer = std::shared_ptr<spdlog::sinks::sink>;

namespace {

constexpr const char* kLinePattern = "%Y-%m-%d %H:%M:%S.%f %l [%t] %n: %v";
constexpr const char* kSyslogPattern = "%n: %v"; // The system log adds the rest.
constexpr const char* kJournalPattern = "[%t] %n: %v";

spdlog::level::level_enum ToSpdlog(LogLevel level) {
    switch (level) {
        case LogLevel::Error:
            return spdlog::level::err;
        case LogLevel::Warning:
            return spdlog::level::warn;
        case LogLevel::Information:
            return spdlog::level::info;
        case LogLevel::Debug:
            return spdlog::level::debug;
        default:
            return spdlog::level::trace;
    }
}

// Never destroyed, like the registry.
Console& StandardError() {
    static auto* const console = new Console;
    return *console;
}

// systemd names the stream that the journal reads by device and inode; the variable also reaches processes whose
// standard error goes elsewhere.
bool IsReadByJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat standardError {};
    return stream != nullptr && fstat(STDERR_FILENO, &standardError) == 0 &&
           stream == std::to_string(standardError.st_dev) + ":" + std::to_string(standardError.st_ino);
}

// Priorities of sd-daemon(3).
const char* JournalPrefix(spdlog::level::level_enum level) {
    switch (level) {
        case spdlog::level::err:
            return "<3>";
        case spdlog::level::warn:
            return "<4>";
        case spdlog::level::info:
            return "<6>";
        default:
            return "<7>";
    }
}

class ConsoleSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    explicit ConsoleSink(bool forJournal) : forJournal_(forJournal) {}

private:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        const std::string prefix = forJournal_ ? JournalPrefix(message.level) : "";
        StandardError().Write(prefix + std::string(line.data(), line.size()));
    }
    void flush_() override {}

    const bool forJournal_;
};

SinkPointer MakeStderrSink() {
    const bool forJournal = IsReadByJournal();
    auto sink = std::make_shared<ConsoleSink>(forJournal);
    sink->set_pattern(forJournal ? kJournalPattern : kLinePattern);
    return sink;
}

// The sink itself would make missing folders, try five times and forget the system's error.
void RequireAppendable(const std::string& path) {
    const int file = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0) {
        throw osa::Exception("Cannot open log file %s: %s", path.c_str(), osa::ErrnoText(errno).c_str());
    }
    close(file);
}

SinkPointer MakeFileSink(const std::string& path) {
    RequireAppendable(path);
    try {
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_st>(path);
        sink->set_pattern(kLinePattern);
        return sink;
    } catch (const spdlog::spdlog_ex& failure) {
        throw osa::Exception("Cannot open log file %s: %s", path.c_str(), failure.what());
    }
}

SinkPointer MakeSyslogSink(const std::string& ident) {
    auto sink = std::make_shared<spdlog::sinks::syslog_sink_st>(ident, LOG_PID, LOG_USER, true);
    const std::string noLineEnd;
    sink->set_formatter(std::make_unique<spdlog::pattern_formatter>(
        kSyslogPattern, spdlog::pattern_time_type::local, noLineEnd));
    return sink;
}

} // namespace

LogRegistry& LogRegistry::GetInstance() {
    static LogRegistry* const instance = new LogRegistry;
    return *instance;
}

LogRegistry::LogRegistry() : target_(MakeStderrSink()) {
    (void)std::atexit([] { StandardError().Flush(); });
}

Logger* LogRegistry::GetLogger(const std::string& name) {
    const MutexAutoLock lock(loggersLock_);
    Logger*& logger = loggers_[name];
    if (logger == nullptr) {
        logger = new Logger(name, GetLevelUnlocked(name));
    }
    return logger;
}

void LogRegistry::SetLevels(const LogLevels& levels) {
    const MutexAutoLock lock(loggersLock_);
    levels_ = levels;
    ApplyLevelsUnlocked();
}

LogLevel LogRegistry::GetLevelUnlocked(const std::string& logger) const {
    return captures_.empty() ? levels_.GetLevel(logger) : captures_.back()->level_;
}

void LogRegistry::ApplyLevelsUnlocked() {
    for (const auto& [name, logger] : loggers_) {
        logger->level_.store(GetLevelUnlocked(name), std::memory_order_relaxed);
    }
}

void LogRegistry::AddCapture(LogCapture* capture) {
    const MutexAutoLock lock(loggersLock_);
    captures_.push_back(capture);
    RedirectUnlocked(); // First, or lines that only the capture wants would reach the target.
    ApplyLevelsUnlocked();
}

void LogRegistry::RemoveCapture(LogCapture* capture) {
    const MutexAutoLock lock(loggersLock_);
    captures_.erase(std::remove(captures_.begin(), captures_.end(), capture), captures_.end());
    ApplyLevelsUnlocked();
    RedirectUnlocked();
}

void LogRegistry::RedirectUnlocked() {
    const MutexAutoLock lock(outputLock_);
    capture_ = captures_.empty() ? nullptr : captures_.back();
}

void LogRegistry::LogToStderr() {
    ReplaceTarget(MakeStderrSink(), "");
}

void LogRegistry::LogToFile(const std::string& path) {
    ReplaceTarget(MakeFileSink(path), path);
}

void LogRegistry::ReopenFile() {
    std::string file;
    {
        const MutexAutoLock lock(outputLock_);
        file = file_;
    }
    if (!file.empty()) {
        LogToFile(file);
    }
}

void LogRegistry::LogToSyslog(const std::string& ident) {
    const MutexAutoLock lock(outputLock_);
    FlushTargetUnlocked();
    // A syslog target closes the process's one connection when it goes, so it must go before the next one.
    target_ = MakeStderrSink();
    target_ = MakeSyslogSink(ident);
    file_.clear();
    failed_ = false;
}

void LogRegistry::ReplaceTarget(SinkPointer target, const std::string& file) {
    const MutexAutoLock lock(outputLock_);
    FlushTargetUnlocked();
    target_ = std::move(target);
    file_ = file;
    failed_ = false;
}

void LogRegistry::Write(const std::string& logger, LogLevel level, const std::string& text) {
    const MutexAutoLock lock(outputLock_);
    if (capture_ != nullptr) {
        capture_->Add({logger, level, text});
        return;
    }
    try {
        target_->log(spdlog::details::log_msg(logger, ToSpdlog(level), text));
        target_->flush(); // Whoever follows the file sees each line, and a crash loses none.
        failed_ = false;
    } catch (const std::exception& failure) {
        ReportFailureUnlocked(failure.what());
    }
}

void LogRegistry::FlushTargetUnlocked() {
    try {
        target_->flush();
    } catch (const std::exception& failure) {
        ReportFailureUnlocked(failure.what());
    }
}

void LogRegistry::ReportFailureUnlocked(const char* what) {
    if (!failed_) {
        std::fprintf(stderr, "Log lines are lost: %s\n", what);
    }
    failed_ = true;
}

} // namespace quarn::core
