#pragma once

#include <chrono>

#include "TimeText.h"

namespace calvane_recording {

/// A line on the terminal that tells how far something has come; nothing where standard error is none.
///
/// Lifetime: the line is removed by the destructor.
class Progress {
public:
    explicit Progress(const Span& span);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Show(Time at);

private:
    const Span span_;
    const bool isTerminal_;
    std::chrono::steady_clock::time_point next_;
    bool isShown_ = false;
};

} // namespace calvane_recording
