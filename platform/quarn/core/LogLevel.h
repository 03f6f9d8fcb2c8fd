#pragma once

namespace quarn::core {

/// How urgent a message is, and how much a logger lets pass: messages whose number is at most its own. Up to
/// Debug the numbers are the severities of syslog (RFC 5424).
enum class LogLevel : int {
    Off = 0, ///< For loggers only: lets nothing pass.
    Error = 3,
    Warning = 4,
    Information = 6,
    Debug = 7,
    Trace = 8,
};

} // namespace quarn::core
