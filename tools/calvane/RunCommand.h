#pragma once

#include <string>

namespace calvane_program {

struct RunOptions {
    std::string file;
    std::string logLevels = "*=warning";
    std::string logFile; ///< Empty: the standard error stream, unless `syslog` is set.
    bool syslog = false;
    double statsSeconds = 0; ///< 0: no statistics while running.
    std::string traceFile;   ///< Empty: no trace.
};

/// Runs the pipelines of a description to their end and tells how each ended. Returns the exit status.
int Run(const RunOptions& options);

} // namespace calvane_program
