#include "quarn/core/LogCapture.h"

#include <algorithm>
#include <utility>

#include "quarn/core/internal/LogRegistry.h"
#include "quarn/osa/MutexAutoLock.h"

namespace quarn::core {

using osa::MutexAutoLock;

LogCapture::LogCapture(LogLevel level) : level_(level) {
    LogRegistry::GetInstance().AddCapture(this);
}

LogCapture::~LogCapture() {
    LogRegistry::GetInstance().RemoveCapture(this);
}

std::vector<LogCapture::Line> LogCapture::GetLines() const {
    const MutexAutoLock lock(lock_);
    return lines_;
}

unsigned int LogCapture::Count(const std::string& text) const {
    const MutexAutoLock lock(lock_);
    const auto hasText = [&text](const Line& line) { return line.text == text; };
    return static_cast<unsigned int>(std::count_if(lines_.begin(), lines_.end(), hasText));
}

void LogCapture::Add(Line line) {
    const MutexAutoLock lock(lock_);
    lines_.push_back(std::move(line));
}

} // namespace quarn::core
