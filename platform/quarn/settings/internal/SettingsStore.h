#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "quarn/settings/Setting.h"

struct sqlite3;
struct sqlite3_stmt;

namespace quarn::settings {

/// The settings database as one process sees it: an SQLite file with a rollback journal, and a copy of its
/// contents that is read again when the file's change counter (bytes 24 to 27 of SQLite's file format) differs.
///
/// Threads: any.
/// Errors:  osa::Exception that names the file.
class SettingsStore {
public:
    /// The process's one store of this path: two connections of one process to one file would only wait for
    /// each other.
    static std::shared_ptr<SettingsStore> Open(const std::string& path);
    explicit SettingsStore(const std::string& path); // For Open.
    ~SettingsStore();
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    const std::string& Path() const { return path_; }

    std::optional<Setting> Get(const std::string& key);
    void Set(const std::string& key, const Setting& value) { Write(key, value, &Entry::value, kSetValue); }
    void SetDefault(const std::string& key, const Setting& value) {
        Write(key, value, &Entry::fallback, kSetDefault);
    }

private:
    struct Entry {
        std::optional<Setting> value;
        std::optional<Setting> fallback;
    };

    static const char* const kSetValue;
    static const char* const kSetDefault;

    void Write(const std::string& key, const Setting& value, std::optional<Setting> Entry::*part,
               const char* sql);
    std::uint32_t ReadChangeCounter() const;
    void Refresh();
    void Load();
    void Execute(const char* sql) const;
    [[noreturn]] void Fail(const char* what) const;

    const std::string path_;
    std::mutex lock_;
    // Guarded by lock_.
    sqlite3* database_ = nullptr;
    std::map<std::string, Entry> entries_;
    std::optional<std::uint32_t> loadedCounter_; // Nothing was loaded yet when it is not set.
};

} // namespace quarn::settings
