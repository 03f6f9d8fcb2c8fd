#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "quarn/Export.h"
#include "quarn/settings/Setting.h"

namespace quarn::settings {

class SettingsStore;
class SettingsWatcher;

/// A client of the device's settings: values by name that survive power loss and that all processes share.
///
/// A setting has a value, a default or both; a value counts before the default, whatever the order of the calls.
/// What one process has set, all others read from then on. A read costs one read of four bytes of the database
/// file; only after a change the settings are read again.
///
/// Threads:  any; any number of clients and processes. Callbacks run on a thread of the client's own.
/// Errors:   osa::Exception that names the database file or the key, and the reason. When a change fails,
///           nothing has changed.
/// Lifetime: the database is opened by the first operation, and made, with its folder, if it is not there. One that
///           is removed or replaced counts as it is from then on; one that is damaged is set aside as
///           "FILE.damaged" and begins anew. Destruction waits for a callback that is running.
class QUARN_API QuarnSettingsClient {
public:
    using Callback = std::function<void(const std::string& key)>;

    /// Null stands for what the environment variable DRENN_SETTINGS names, else /var/lib/drenn/settings.db.
    explicit QuarnSettingsClient(const char* databasePath);
    ~QuarnSettingsClient();
    QuarnSettingsClient(const QuarnSettingsClient&) = delete;
    QuarnSettingsClient& operator=(const QuarnSettingsClient&) = delete;

    /// The value, else the default, else nothing.
    std::optional<Setting> Get(const std::string& key) const;
    /// As Get; nothing as well when neither value nor default is there. Throws SettingTypeException when the
    /// setting is of the other type.
    std::optional<std::int64_t> GetInt(const std::string& key) const;
    std::optional<std::string> GetString(const std::string& key) const;
    /// Several as they were at one moment, so that settings that belong together are of one change.
    std::vector<std::optional<Setting>> Get(const std::vector<std::string>& keys) const;
    /// What the setting reads as until it is set.
    std::optional<Setting> GetDefault(const std::string& key) const;

    /// Durable when it returns. Writes nothing when the setting has this value already.
    void Set(const std::string& key, const Setting& value);
    void SetDefault(const std::string& key, const Setting& value);
    /// Several in one change.
    void Set(const std::map<std::string, Setting>& values);

    /// From now on calls `callback` after the key's reading has changed, whichever process changed it; for
    /// changes in quick succession perhaps only once. Returns a number to unsubscribe with. A callback may
    /// read, set, subscribe and unsubscribe; what it throws is logged.
    int Subscribe(const std::string& key, Callback callback);
    /// On return the callback is not running any more, unless it is the caller.
    void Unsubscribe(int subscription);

private:
    std::shared_ptr<SettingsStore> Store() const;

    const std::string databasePath_;
    mutable std::mutex lock_; // Guards the two below; never held while they work.
    mutable std::shared_ptr<SettingsStore> store_;
    std::unique_ptr<SettingsWatcher> watcher_; // Made by the first Subscribe.
};

} // namespace quarn::settings
