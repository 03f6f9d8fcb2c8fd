#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "quarn/core/Logger.h"
#include "quarn/settings/internal/SettingsStore.h"

namespace quarn::settings {
namespace {

/// What is in the file is no settings database any more.
class DamagedError : public osa::Exception {
public:
    using osa::Exception::Exception;
};

/// The database may be another user's.
class ReadOnlyError : public osa::Exception {
public:
    using osa::Exception::Exception;
};

/// Keeps other processes that mind it from working in a folder.
class FolderLock {
public:
    explicit FolderLock(const std::filesystem::path& folder)
        : descriptor_(open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        flock(descriptor_, LOCK_EX);
    }
    ~FolderLock() { close(descriptor_); }
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

private:
    const int descriptor_;
};

core::Logger* GetLogger() {
    static core::Logger* const logger = core::Logger::GetLogger("Settings");
    return logger;
}

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
        // Without dots: where another process makes the folder meanwhile, libstdc++ takes the front of an empty stack for
        // a path that ends in one.
        const auto canonical = std::filesystem::weakly_canonical(folder, error);
        if (!error) {
            std::filesystem::create_directories(canonical, error);
        }
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
    Open();
}

SettingsStore::~SettingsStore() {
    Close();
}

/// Within the lock, as all that follows. With what was set for this process.
void SettingsStore::Open() {
    try {
        Connect();
    } catch (const DamagedError&) {
        SetAside();
        Connect();
    }
}

void SettingsStore::Connect() {
    Close();
    MakeFolder(path_);
    // Our lock is the only one that is needed.
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    try {
        if (sqlite3_open_v2(path_.c_str(), &database_, flags, nullptr) != SQLITE_OK) {
            Fail("open");
        }
        sqlite3_busy_timeout(database_, static_cast<int>(std::chrono::milliseconds(kLongestWait).count()));
        // EXTRA syncs the folder, too, when the journal is removed: only then a change is durable.
        Execute("PRAGMA journal_mode=DELETE; PRAGMA synchronous=EXTRA; PRAGMA mmap_size=0");
        Execute(
            "CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY NOT NULL, value, fallback) WITHOUT "
            "ROWID");
        Load();
        fileNumber_ = FileNumber();
    } catch (...) {
        Close();
        throw;
    }
}

void SettingsStore::Close() {
    sqlite3_close_v2(database_);
    database_ = nullptr;
    loadedCounter_ = std::nullopt;
}

/// Puts the file out of the way, unless another process has just done so.
void SettingsStore::SetAside() {
    const FolderLock lock(std::filesystem::path(path_).parent_path());
    try {
        Connect();
    } catch (const DamagedError& damage) {
        std::string aside = path_ + ".damaged";
        for (int number = 2; std::filesystem::exists(aside); ++number) {
            aside = path_ + ".damaged-" + std::to_string(number);
        }
        // The journal first: it would be played back into the next file of this name.
        std::error_code none;
        std::filesystem::rename(path_ + "-journal", aside + "-journal", none);
        std::filesystem::rename(path_, aside);
        GetLogger()->Error("%s; it is set aside as %s, and the settings begin with their defaults",
                           damage.what(), aside.c_str());
    }
}

/// Nothing if there is none.
std::optional<ino_t> SettingsStore::FileNumber() const {
    struct stat facts {};
    return stat(path_.c_str(), &facts) == 0 ? std::make_optional(facts.st_ino) : std::nullopt;
}

std::vector<std::optional<Setting>> SettingsStore::Get(const std::vector<std::string>& keys) {
    const std::lock_guard<std::mutex> guard(lock_);
    Refresh();
    std::vector<std::optional<Setting>> values;
    for (const std::string& key : keys) {
        const auto entry = entries_.find(key);
        const auto fallback = defaults_.find(key);
        if (entry != entries_.end() && (entry->second.value || entry->second.fallback)) {
            values.push_back(entry->second.value ? entry->second.value : entry->second.fallback);
        } else {
            values.push_back(fallback != defaults_.end() ? std::make_optional(fallback->second)
                                                         : std::nullopt);
        }
    }
    return values;
}

std::optional<Setting> SettingsStore::GetDefault(const std::string& key) {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto own = defaults_.find(key);
    const auto entry = entries_.find(key);
    if (own != defaults_.end() || entry == entries_.end()) {
        return own != defaults_.end() ? std::make_optional(own->second) : std::nullopt;
    }
    return entry->second.fallback;
}

void SettingsStore::Set(const std::map<std::string, Setting>& values) {
    const std::lock_guard<std::mutex> guard(lock_);
    Refresh();
    Write(values, &Entry::value, kSetValue);
}

void SettingsStore::SetDefault(const std::string& key, const Setting& value) {
    const std::lock_guard<std::mutex> guard(lock_);
    Refresh();
    try {
        Write({{key, value}}, &Entry::fallback, kSetDefault);
    } catch (const ReadOnlyError& problem) {
        GetLogger()->Warning("%s; the default of %s counts for this process only", problem.what(),
                             key.c_str());
    }
    defaults_[key] = value;
}

/// Those that differ from what is there, all or none.
void SettingsStore::Write(const std::map<std::string, Setting>& values, std::optional<Setting> Entry::*part,
                          const char* sql) {
    std::map<std::string, Setting> changed;
    for (const auto& [key, value] : values) {
        const auto entry = entries_.find(key);
        if (entry == entries_.end() || entry->second.*part != value) {
            changed[key] = value;
        }
    }
    if (changed.empty()) {
        return;
    }
    Execute("BEGIN IMMEDIATE");
    try {
        for (const auto& [key, value] : changed) {
            WriteOne(key, value, sql);
        }
        Execute("COMMIT");
    } catch (...) {
        sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
    // The counter of the file has moved, so the next reading loads what is there now.
}

void SettingsStore::WriteOne(const std::string& key, const Setting& value, const char* sql) const {
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
}

// Without SQLite's lock: a change that is just being written is seen before or after it.
std::uint32_t SettingsStore::ReadChangeCounter() const {
    sqlite3_file* file = nullptr;
    sqlite3_file_control(database_, "main", SQLITE_FCNTL_FILE_POINTER, &file);
    std::array<unsigned char, 4> bytes{};
    const int result = file == nullptr || file->pMethods == nullptr
                           ? SQLITE_MISUSE
                           : file->pMethods->xRead(file, bytes.data(), static_cast<int>(bytes.size()), 24);
    if (result == SQLITE_IOERR_SHORT_READ) {
        throw DamagedError("The settings database " + path_ + " has been cut short");
    }
    if (result != SQLITE_OK) {
        throw osa::Exception("Cannot read the settings database " + path_ + ": " + sqlite3_errstr(result));
    }
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 |
           bytes[3];
}

void SettingsStore::Refresh() {
    try {
        if (database_ == nullptr || FileNumber() != fileNumber_) {
            if (database_ != nullptr) {
                GetLogger()->Warning(
                    "The settings database %s was removed or replaced; what is there now counts",
                    path_.c_str());
            }
            Open();
        } else if (loadedCounter_ != ReadChangeCounter()) {
            Load();
        }
    } catch (const DamagedError&) {
        SetAside();
        Open();
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
    const std::string text =
        std::string("Cannot ") + what + " the settings database " + path_ + ": " + reason;
    switch (sqlite3_errcode(database_)) {
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            throw DamagedError(text);
        case SQLITE_READONLY:
            throw ReadOnlyError(text);
        default:
            throw osa::Exception(text);
    }
}

} // namespace quarn::settings
