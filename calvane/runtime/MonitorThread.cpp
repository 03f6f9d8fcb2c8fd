#include "calvane/runtime/MonitorThread.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>

#include "quarn/core/Logger.h"
#include "quarn/osa/MutexAutoLock.h"

namespace quarn::calvane {

namespace {

constexpr unsigned int kStackBytes = 32768;
constexpr int kHungStatus = -1;
constexpr unsigned int kExitLimitSeconds = 5;

// The log or a stream may be what the hung thread holds: nothing may keep the process alive. An alarm needs no
// memory and no further thread, and reaches this thread even while it waits for a lock.
void EndProcessInAnyCase() {
    std::signal(SIGALRM, [](int) { _exit(kHungStatus); });
    sigset_t alarms;
    sigemptyset(&alarms);
    sigaddset(&alarms, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
    alarm(kExitLimitSeconds);
}

} // namespace

MonitorThread::MonitorThread(unsigned int periodMs)
    : periodMs_(periodMs),
      thread_(
          std::make_unique<osa::Thread>("MonitorThread", this, kStackBytes, static_cast<signed char>(0))) {
    thread_->Run();
}

MonitorThread::~MonitorThread() {
    Stop();
    try {
        thread_->Join();
    } catch (const std::exception&) {
        // Destroyed by its own thread: there is nothing to wait for.
    }
}

bool* MonitorThread::AddMonitorEntry(const char* name) {
    const osa::MutexAutoLock lock(lock_);
    for (Entry& entry : entries_) {
        if (entry.name == nullptr) {
            entry.name = name;
            Kick(&entry.alive);
            return &entry.alive;
        }
    }
    return nullptr;
}

void MonitorThread::DeleteMonitorEntry(const bool* flag) {
    const osa::MutexAutoLock lock(lock_);
    for (Entry& entry : entries_) {
        if (&entry.alive == flag) {
            entry.name = nullptr;
            Kick(&entry.alive);
            return;
        }
    }
}

void MonitorThread::Run() {
    wakeUp_.TryLock(0); // Taken, so that the waits below last until Stop releases it.
    while (running_) {
        wakeUp_.TryLock(periodMs_);
        if (running_) {
            CheckEntries();
        }
    }
}

void MonitorThread::Stop() {
    running_ = false;
    try {
        wakeUp_.Release();
    } catch (const std::exception&) {
        // It stands at its maximum: the thread will not wait anyway.
    }
}

void MonitorThread::CheckEntries() {
    std::optional<std::string> hung; // A copy: once the lock is free the entry and its name may go.
    {
        const osa::MutexAutoLock lock(lock_);
        for (Entry& entry : entries_) {
            if (entry.name != nullptr && !__atomic_exchange_n(&entry.alive, false, __ATOMIC_RELAXED)) {
                EndProcessInAnyCase();
                hung = entry.name;
                break;
            }
        }
    }
    if (hung) {
        EndProcess(*hung);
    }
}

// exit() would run the destructors of static objects on this thread while all others still use them. A static
// pipeline manager would even stop its pipelines, and the main thread, released from its wait, would call
// exit() with a status of its own: the hang would look like success.
void MonitorThread::EndProcess(const std::string& threadName) {
    core::Logger::GetLogger("calvane")->Error("Thread %s failure\n", threadName.c_str());
    std::fflush(nullptr);
    _exit(kHungStatus);
}

} // namespace quarn::calvane
