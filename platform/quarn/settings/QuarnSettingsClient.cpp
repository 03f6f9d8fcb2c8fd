#include "quarn/settings/QuarnSettingsClient.h"

#include <cstdlib>
#include <utility>

#include "quarn/settings/internal/SettingsStore.h"
#include "quarn/settings/internal/SettingsWatcher.h"

namespace quarn::settings {
namespace {

std::string PathOr(const char* path) {
    if (path == nullptr || *path == '\0') {
        path = std::getenv("DRENN_SETTINGS");
    }
    return path == nullptr || *path == '\0' ? "/var/lib/drenn/settings.db" : path;
}

template <typename T>
std::optional<T> As(const std::string& key, const std::optional<Setting>& setting, const char* type) {
    if (!setting) {
        return std::nullopt;
    }
    if (const T* const value = std::get_if<T>(&*setting)) {
        return *value;
    }
    throw SettingTypeException("Setting " + key + " is not " + type);
}

} // namespace

QuarnSettingsClient::QuarnSettingsClient(const char* databasePath) : databasePath_(PathOr(databasePath)) {}

QuarnSettingsClient::~QuarnSettingsClient() = default;

std::shared_ptr<SettingsStore> QuarnSettingsClient::Store() const {
    const std::lock_guard<std::mutex> guard(lock_);
    if (store_ == nullptr) {
        store_ = SettingsStore::Open(databasePath_);
    }
    return store_;
}

std::optional<Setting> QuarnSettingsClient::Get(const std::string& key) const {
    return Store()->Get(key);
}

std::optional<std::int64_t> QuarnSettingsClient::GetInt(const std::string& key) const {
    return As<std::int64_t>(key, Get(key), "an integer");
}

std::optional<std::string> QuarnSettingsClient::GetString(const std::string& key) const {
    return As<std::string>(key, Get(key), "a text");
}

std::vector<std::optional<Setting>> QuarnSettingsClient::Get(const std::vector<std::string>& keys) const {
    return Store()->Get(keys);
}

std::optional<Setting> QuarnSettingsClient::GetDefault(const std::string& key) const {
    return Store()->GetDefault(key);
}

void QuarnSettingsClient::Set(const std::string& key, const Setting& value) {
    Store()->Set({{key, value}});
}

void QuarnSettingsClient::Set(const std::map<std::string, Setting>& values) {
    Store()->Set(values);
}

void QuarnSettingsClient::SetDefault(const std::string& key, const Setting& value) {
    Store()->SetDefault(key, value);
}

int QuarnSettingsClient::Subscribe(const std::string& key, Callback callback) {
    auto store = Store();
    SettingsWatcher* watcher = nullptr;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (watcher_ == nullptr) {
            watcher_ = std::make_unique<SettingsWatcher>(std::move(store));
        }
        watcher = watcher_.get();
    }
    return watcher->Subscribe(key, std::move(callback)); // Without lock_, which a callback's reading takes.
}

void QuarnSettingsClient::Unsubscribe(int subscription) {
    SettingsWatcher* watcher = nullptr;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        watcher = watcher_.get();
    }
    if (watcher != nullptr) {
        watcher->Unsubscribe(subscription);
    }
}

} // namespace quarn::settings
