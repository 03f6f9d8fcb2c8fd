#pragma once

#include <string>
#include <vector>

#include "quarn/Export.h"
#include "quarn/core/LogLevel.h"
#include "quarn/osa/Mutex.h"

namespace quarn::core {

/// Collects what all loggers log while it lives, for tests of what a program says. The lines go nowhere else,
/// and all loggers have the capture's level, whatever Logger::SetLevels asked for.
///
/// Threads:  any.
/// Lifetime: destruction gives target and levels back. Of several the one made last collects.
class QUARN_API LogCapture {
public:
    struct Line {
        std::string logger;
        LogLevel level;
        std::string text;
    };

    explicit LogCapture(LogLevel level = LogLevel::Trace);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// All lines so far, the oldest first.
    std::vector<Line> GetLines() const;
    /// Whether some line has exactly this text.
    bool Contains(const std::string& text) const { return Count(text) != 0; }
    /// How many lines have exactly this text.
    unsigned int Count(const std::string& text) const;

private:
    friend class LogRegistry;
    void Add(Line line);

    const LogLevel level_;
    mutable osa::Mutex lock_{"LogCapture"};
    std::vector<Line> lines_;
};

} // namespace quarn::core
