#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace calvane_recording {
namespace {

constexpr int kWidth = 40;
constexpr auto kPeriod = std::chrono::milliseconds(100);

} // namespace

Progress::Progress(const Span& span)
    : span_(span),
      isTerminal_(isatty(STDERR_FILENO) == 1),
      next_(std::chrono::steady_clock::now() + kPeriod) {}

Progress::~Progress() {
    if (isShown_) {
        std::fprintf(stderr, "\r\033[K");
    }
}

void Progress::Show(Time at) {
    const auto now = std::chrono::steady_clock::now();
    if (!isTerminal_ || now < next_) {
        return;
    }
    next_ = now + kPeriod;
    isShown_ = true;
    const auto length = static_cast<double>(std::max<Time>(span_.last - span_.first, 1));
    const double share = std::clamp(static_cast<double>(at - span_.first) / length, 0.0, 1.0);
    const auto filled = static_cast<std::size_t>(share * kWidth);
    const std::string bar = std::string(filled, '#') + std::string(kWidth - filled, '-');
    std::fprintf(stderr, "\r[%s] %3d %%  %s", bar.c_str(), static_cast<int>(share * 100),
                 TimeText(at, Zone::Utc).c_str());
}

} // namespace calvane_recording
