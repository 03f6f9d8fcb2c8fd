#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "quarn/settings/Setting.h"

struct sqlite3;
struct sqlite3_stmt;

namespace quarn::settings {

/// The settings database as one process sees it: an SQLite file with a rollback journal, and a copy of its
/// contents that is read again when the file's change counter (bytes 24 to 27 of SQLite's file format) differs.
///
/// A file that was removed or replaced is noticed, and what is there then counts. One that is damaged is set aside
/// under another name, and a new one begins with the defaults of those who use it.
///
/// Threads: any. No operation waits for longer than kLongestWait for other processes.
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

    static constexpr std::chrono::seconds kLongestWait{5};

    const std::string& Path() const { return path_; }

    std::optional<Setting> Get(const std::string& key) { return Get(std::vector{key}).front(); }
    /// All of them as they were at one moment.
    std::vector<std::optional<Setting>> Get(const std::vector<std::string>& keys);
    std::optional<Setting> GetDefault(const std::string& key);
    /// In one transaction.
    void Set(const std::map<std::string, Setting>& values);
    /// Counts in this process although the file may be another user's, and cannot be written.
    void SetDefault(const std::string& key, const Setting& value);

private:
    struct Entry {
        std::optional<Setting> value;
        std::optional<Setting> fallback;
    };

    static const char* const kSetValue;
    static const char* const kSetDefault;

    void Write(const std::map<std::string, Setting>& values, std::optional<Setting> Entry::*part,
               const char* sql);
    void WriteOne(const std::string& key, const Setting& value, const char* sql) const;
    void Connect();
    void Close();
    void Open();
    void SetAside();
    std::optional<ino_t> FileNumber() const;
    std::uint32_t ReadChangeCounter() const;
    void Refresh();
    void Load();
    void Execute(const char* sql) const;
    [[noreturn]] void Fail(const char* what) const;

    const std::string path_;
    std::mutex lock_;
    // Guarded by lock_.
    sqlite3* database_ = nullptr;
    std::optional<ino_t> fileNumber_; // Of the file that is open.
    std::map<std::string, Entry> entries_;
    std::map<std::string, Setting> defaults_;    // Of this process.
    std::optional<std::uint32_t> loadedCounter_; // Nothing was loaded yet when it is not set.
};

} // namespace quarn::settings
