#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"
#include "quarn/settings/QuarnSettingsClient.h"
#include "quarn/settings/internal/SettingsStore.h"

namespace quarn::settings {

/// Watches the settings database (with inotify) and calls those who want to know of a key.
///
/// Threads: any; callbacks run on its own thread, with a lock that is re-entrant.
class SettingsWatcher : public osa::Runnable {
public:
    explicit SettingsWatcher(std::shared_ptr<SettingsStore> store);
    ~SettingsWatcher() override;

    int Subscribe(const std::string& key, QuarnSettingsClient::Callback callback);
    void Unsubscribe(int subscription);

private:
    struct Subscription {
        std::string key;
        QuarnSettingsClient::Callback callback;
        std::optional<Setting> known;
    };

    void Run() override;
    void Stop() override;
    bool Watch() const;
    void TellChanges();
    void TellOne(int number);

    const std::shared_ptr<SettingsStore> store_;
    int inotify_ = -1;
    int stop_ = -1; // An eventfd.
    std::recursive_mutex lock_;
    // Guarded by lock_.
    std::map<int, Subscription> subscriptions_;
    int nextNumber_ = 1;

    std::unique_ptr<osa::Thread> thread_;
};

} // namespace quarn::settings
