#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "quarn/osa/Mutex.h"

namespace quarn::core {

/// Standard error as a place for log lines that never makes a thread wait.
///
/// As long as it takes them, lines are written by the thread that logs them and are out when Write returns.
/// When it does not (a terminal that is stopped, a serial line, a pipe whose reader is slow), they are kept, and
/// a thread that exists only while there are such lines writes them. What exceeds 1 MiB is lost, and a line
/// tells how many were.
///
/// Threads:  any.
/// Lifetime: must not be destroyed. Lines that are kept are lost when the process ends otherwise than by exit().
class Console {
public:
    Console() = default;
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// `line`: with its end of line.
    void Write(std::string_view line);
    /// Waits until no lines are kept, as long as standard error takes some every second.
    void Flush();

private:
    void Keep(std::string_view line);
    void StartWriter();
    void WriteKept();
    std::string TakeKept();

    osa::Mutex lock_{"Console"};
    std::string kept_;
    unsigned int lostLines_ = 0;
    bool writing_ = false;         // There is a thread that writes what was kept.
    std::size_t writtenBytes_ = 0; // By it, ever.
};

} // namespace quarn::core
