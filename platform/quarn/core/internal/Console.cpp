#include "quarn/core/internal/Console.h"

#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>
#include <thread>

#include "quarn/osa/MutexAutoLock.h"
#include "quarn/osa/Thread.h"

namespace quarn::core {

using osa::MutexAutoLock;

namespace {

constexpr std::size_t kMostKeptBytes = 1U << 20U;
constexpr unsigned int kFlushPollMicroseconds = 1000;
constexpr unsigned int kFlushPollsWithoutProgress = 1000;

bool TakesBytes(int timeoutMs) {
    pollfd console{STDERR_FILENO, POLLOUT, 0};
    return poll(&console, 1, timeoutMs) != 0; // An error shows in the write.
}

// Returns how many bytes need no further attempt. A pipe that is ready takes PIPE_BUF bytes at once.
std::size_t WriteSome(std::string_view text) {
    const ssize_t written = write(STDERR_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (written >= 0) {
        return static_cast<std::size_t>(written);
    }
    // There is nobody to tell that the place for errors fails.
    return errno == EINTR || errno == EAGAIN ? 0 : text.size();
}

} // namespace

void Console::Write(std::string_view line) {
    const MutexAutoLock lock(lock_);
    while (kept_.empty() && !writing_ && !line.empty() && TakesBytes(0)) {
        line.remove_prefix(WriteSome(line));
    }
    if (!line.empty()) {
        Keep(line);
    }
}

void Console::Flush() {
    std::size_t written = 0;
    for (unsigned int polls = 0; polls != kFlushPollsWithoutProgress; ++polls) {
        {
            const MutexAutoLock lock(lock_);
            if (!writing_) {
                return;
            }
            polls = writtenBytes_ != written ? 0 : polls;
            written = writtenBytes_;
        }
        osa::Thread::CurrentThread::MicroSleep(kFlushPollMicroseconds);
    }
}

void Console::Keep(std::string_view line) {
    if (kept_.size() + line.size() > kMostKeptBytes) {
        ++lostLines_;
        return;
    }
    kept_ += line;
    if (!writing_) {
        StartWriter();
    }
}

void Console::StartWriter() {
    try {
        std::thread([this] {
            sched_param none{};
            sched_setscheduler(0, SCHED_OTHER, &none); // Whatever the thread that logged runs at.
            WriteKept();
        }).detach();
        writing_ = true;
    } catch (const std::system_error&) {
        // No thread to be had: the next line tries again.
    }
}

void Console::WriteKept() {
    for (std::string text = TakeKept(); !text.empty(); text = TakeKept()) {
        for (std::string_view rest = text; !rest.empty();) {
            TakesBytes(-1);
            const std::size_t written = WriteSome(rest);
            rest.remove_prefix(written);
            const MutexAutoLock lock(lock_);
            writtenBytes_ += written;
        }
    }
}

// Empty when there is nothing more to write: the thread ends then.
std::string Console::TakeKept() {
    const MutexAutoLock lock(lock_);
    std::string text;
    text.swap(kept_);
    if (lostLines_ != 0) {
        text +=
            "Log lines are lost: standard error took " + std::to_string(lostLines_) + " of them too slowly\n";
        lostLines_ = 0;
    }
    writing_ = !text.empty();
    return text;
}

} // namespace quarn::core
