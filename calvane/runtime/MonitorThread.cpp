#include "calvane/runtime/MonitorThread.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <thread>

#include "quarn/core/Logger.h"
#include "quarn/osa/MutexAutoLock.h"

namespace quarn::calvane {

namespace {

constexpr unsigned int kStackBytes = 32768;
constexpr int kHungStatus = -1;
constexpr std::chrono::seconds kExitLimit{5};

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
        // A static object goes while the watchdog itself ends the process: there is nothing to wait for.
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
    const osa::MutexAutoLock lock(lock_);
    for (Entry& entry : entries_) {
        if (entry.name != nullptr && !__atomic_exchange_n(&entry.alive, false, __ATOMIC_RELAXED)) {
            EndProcess(entry.name);
        }
    }
}

void MonitorThread::EndProcess(const char* threadName) {
    core::Logger::GetLogger("calvane")->Error("Thread %s failure\n", threadName);
    // Handlers that run at exit may need what the hung thread holds; they cannot keep the process alive.
    std::thread([] {
        std::this_thread::sleep_for(kExitLimit);
        _exit(kHungStatus);
    }).detach();
    std::exit(kHungStatus);
}

} // namespace quarn::calvane
