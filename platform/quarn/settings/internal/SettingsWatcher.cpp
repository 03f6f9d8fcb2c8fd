#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "quarn/core/Logger.h"
#include "quarn/settings/internal/SettingsWatcher.h"

namespace quarn::settings {
namespace {

core::Logger* GetLogger() {
    static core::Logger* const logger = core::Logger::GetLogger("Settings");
    return logger;
}

} // namespace

SettingsWatcher::SettingsWatcher(std::shared_ptr<SettingsStore> store) : store_(std::move(store)) {
    inotify_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    stop_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (inotify_ < 0 || stop_ < 0 || !Watch()) {
        const int error = errno;
        close(inotify_);
        close(stop_);
        throw osa::Exception("Cannot watch the settings database " + store_->Path() + ": " +
                             std::strerror(error));
    }
    try {
        thread_ = std::make_unique<osa::Thread>("SettingsWatcher", this, osa::Thread::kMinimumStackBytes, 0);
        thread_->Run();
    } catch (...) {
        close(inotify_);
        close(stop_);
        throw;
    }
}

void SettingsWatcher::Stop() {
    eventfd_write(stop_, 1);
}

SettingsWatcher::~SettingsWatcher() {
    SettingsWatcher::Stop();
    thread_->Join();
    close(inotify_);
    close(stop_);
}

int SettingsWatcher::Subscribe(const std::string& key, QuarnSettingsClient::Callback callback) {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    const int number = nextNumber_++;
    subscriptions_[number] = {key, std::move(callback), store_->Get(key)};
    return number;
}

void SettingsWatcher::Unsubscribe(int subscription) {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    subscriptions_.erase(subscription);
}

void SettingsWatcher::Run() {
    std::array<pollfd, 2> waits{{{inotify_, POLLIN, 0}, {stop_, POLLIN, 0}}};
    for (;;) {
        if (poll(waits.data(), waits.size(), -1) < 0 && errno != EINTR) {
            GetLogger()->Error("Changes of settings are not told any more: %s", std::strerror(errno));
            return;
        }
        if (waits[1].revents != 0) {
            return;
        }
        std::array<char, 4096> events; // What they say does not matter.
        while (read(inotify_, events.data(), events.size()) > 0) {
        }
        TellChanges(); // It makes the file anew if that is gone.
        Watch();
    }
}

/// Also of another file that has taken the place of the one before.
bool SettingsWatcher::Watch() const {
    return inotify_add_watch(inotify_, store_->Path().c_str(), IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF) >= 0;
}

void SettingsWatcher::TellChanges() {
    const std::lock_guard<std::recursive_mutex> guard(lock_);
    std::vector<int> numbers;
    for (const auto& [number, subscription] : subscriptions_) {
        numbers.push_back(number);
    }
    for (const int number : numbers) {
        try {
            TellOne(number);
        } catch (const std::exception& problem) {
            GetLogger()->Warning("A change of settings was not taken: %s", problem.what());
        }
    }
}

void SettingsWatcher::TellOne(int number) {
    const auto found = subscriptions_.find(number); // An earlier callback may have ended it.
    if (found == subscriptions_.end()) {
        return;
    }
    auto now = store_->Get(found->second.key);
    if (now == found->second.known) {
        return;
    }
    found->second.known = std::move(now);
    const Subscription subscription = found->second; // The callback may end itself.
    subscription.callback(subscription.key);
}

} // namespace quarn::settings
