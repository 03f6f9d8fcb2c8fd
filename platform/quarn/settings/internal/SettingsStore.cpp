#include <sqlite3.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "quarn/settings/internal/SettingsStore.h"

namespace quarn::settings {
namespace {

// Another process holds the file for one write, some milliseconds each; a slow card may take a second.
constexpr int kBusyMilliseconds = 30'000;

using StatementPtr = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

StatementPtr Prepare(sqlite3* database, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, sql, -1, &statement, nullptr);
    return {statement, &sqlite3_finalize};
}

std::optional<Setting> ReadColumn(sqlite3_stmt* statement, int column) {
    switch (sqlite3_column_type(statement, column)) {
        case SQLITE_NULL:
            return std::nullopt;
        case SQLITE_INTEGER:
            return Setting(static_cast<std::int64_t>(sqlite3_column_int64(statement, column)));
        default: {
            const void* const bytes = sqlite3_column_blob(statement, column);
            const auto length = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
            return Setting(bytes == nullptr ? std::string()
                                            : std::string(static_cast<const char*>(bytes), length));
        }
    }
}

void BindText(sqlite3_stmt* statement, int place, const std::string& text) {
    sqlite3_bind_text64(statement, place, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

void MakeFolder(const std::string& path) {
    const auto folder = std::filesystem::path(path).parent_path();
    std::error_code error;
    if (!folder.empty() && !std::filesystem::exists(folder, error)) {
        std::filesystem::create_directories(folder, error);
        if (error) {
            throw osa::Exception("Cannot make the folder of the settings database " + path + ": " +
                                 error.message());
        }
    }
}

} // namespace

const char* const SettingsStore::kSetValue =
    "INSERT INTO settings(key, value) VALUES(?1, ?2) ON CONFLICT(key) DO UPDATE SET value = excluded.value";
const char* const SettingsStore::kSetDefault =
    "INSERT INTO settings(key, fallback) VALUES(?1, ?2) ON CONFLICT(key) DO UPDATE SET fallback = "
    "excluded.fallback";

std::shared_ptr<SettingsStore> SettingsStore::Open(const std::string& path) {
    // Never destroyed: a client may outlive static destructors.
    static auto& lock = *new std::mutex;
    static auto& stores = *new std::map<std::string, std::weak_ptr<SettingsStore>>;
    const std::lock_guard<std::mutex> guard(lock);
    auto store = stores[path].lock();
    if (store == nullptr) {
        store = std::make_shared<SettingsStore>(path);
        stores[path] = store;
    }
    return store;
}

SettingsStore::SettingsStore(const std::string& path) : path_(path) {
    MakeFolder(path);
    // Our lock is the only one that is needed.
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    try {
        if (sqlite3_open_v2(path.c_str(), &database_, flags, nullptr) != SQLITE_OK) {
            Fail("open");
        }
        sqlite3_busy_timeout(database_, kBusyMilliseconds);
        // EXTRA syncs the folder, too, when the journal is removed: only then a change is durable.
        Execute("PRAGMA journal_mode=DELETE; PRAGMA synchronous=EXTRA; PRAGMA mmap_size=0");
        Execute(
            "CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY NOT NULL, value, fallback) WITHOUT "
            "ROWID");
    } catch (...) {
        sqlite3_close_v2(database_);
        throw;
    }
}

SettingsStore::~SettingsStore() {
    sqlite3_close_v2(database_);
}

std::optional<Setting> SettingsStore::Get(const std::string& key) {
    const std::lock_guard<std::mutex> guard(lock_);
    Refresh();
    const auto entry = entries_.find(key);
    if (entry == entries_.end()) {
        return std::nullopt;
    }
    return entry->second.value ? entry->second.value : entry->second.fallback;
}

void SettingsStore::Write(const std::string& key, const Setting& value, std::optional<Setting> Entry::*part,
                          const char* sql) {
    const std::lock_guard<std::mutex> guard(lock_);
    Refresh();
    const auto entry = entries_.find(key);
    if (entry != entries_.end() && entry->second.*part == value) {
        return;
    }
    const StatementPtr statement = Prepare(database_, sql);
    if (statement == nullptr) {
        Fail("write");
    }
    BindText(statement.get(), 1, key);
    if (const auto* number = std::get_if<std::int64_t>(&value)) {
        sqlite3_bind_int64(statement.get(), 2, *number);
    } else {
        BindText(statement.get(), 2, std::get<std::string>(value));
    }
    if (sqlite3_step(statement.get()) != SQLITE_DONE) {
        Fail("write");
    }
    // The counter of the file has moved, so the next reading loads what is there now.
}

// Without SQLite's lock: a change that is just being written is seen before or after it.
std::uint32_t SettingsStore::ReadChangeCounter() const {
    sqlite3_file* file = nullptr;
    sqlite3_file_control(database_, "main", SQLITE_FCNTL_FILE_POINTER, &file);
    std::array<unsigned char, 4> bytes{};
    if (file == nullptr || file->pMethods == nullptr ||
        file->pMethods->xRead(file, bytes.data(), static_cast<int>(bytes.size()), 24) != SQLITE_OK) {
        throw osa::Exception("Cannot read the settings database " + path_);
    }
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 |
           bytes[3];
}

void SettingsStore::Refresh() {
    if (loadedCounter_ != ReadChangeCounter()) {
        Load();
    }
}

void SettingsStore::Load() {
    loadedCounter_ = std::nullopt;
    Execute("BEGIN");
    try {
        const StatementPtr statement = Prepare(database_, "SELECT key, value, fallback FROM settings");
        if (statement == nullptr) {
            Fail("read");
        }
        std::map<std::string, Entry> entries;
        int result = sqlite3_step(statement.get());
        // Nobody writes from the first step to the end of the transaction. A counter that a killed writer left
        // behind has been put back by then.
        const std::uint32_t counter = ReadChangeCounter();
        for (; result == SQLITE_ROW; result = sqlite3_step(statement.get())) {
            const Setting key = *ReadColumn(statement.get(), 0);
            entries[std::get<std::string>(key)] = {ReadColumn(statement.get(), 1),
                                                   ReadColumn(statement.get(), 2)};
        }
        if (result != SQLITE_DONE) {
            Fail("read");
        }
        entries_.swap(entries);
        loadedCounter_ = counter;
    } catch (...) {
        sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
    Execute("COMMIT");
}

void SettingsStore::Execute(const char* sql) const {
    if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        Fail("use");
    }
}

void SettingsStore::Fail(const char* what) const {
    const char* const reason = database_ != nullptr ? sqlite3_errmsg(database_) : "out of memory";
    throw osa::Exception(std::string("Cannot ") + what + " the settings database " + path_ + ": " + reason);
}

} // namespace quarn::settings
