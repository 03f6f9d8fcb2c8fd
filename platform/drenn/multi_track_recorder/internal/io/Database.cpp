#include <sqlite3.h>

#include <cerrno>

#include "drenn/multi_track_recorder/internal/io/Database.h"
#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr int kLongestValue = 4 * 1024 * 1024; // Texts have at most 1 MiB.

int ErrnoOf(int result) {
    switch (result & 0xFF) {
        case SQLITE_FULL:
            return ENOSPC;
        case SQLITE_READONLY:
            return EROFS;
        default:
            return EIO;
    }
}

} // namespace

Statement::Statement(Database& database, const std::string& sql) : database_(database) {
    database_.Check(sqlite3_prepare_v3(database_.database_, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT,
                                       &statement_, nullptr));
}

Statement::~Statement() {
    sqlite3_finalize(statement_);
}

Statement& Statement::Bind(std::uint64_t value) {
    database_.Check(sqlite3_bind_int64(statement_, ++bound_, static_cast<sqlite3_int64>(value)));
    return *this;
}

Statement& Statement::Bind(const std::string& value) {
    database_.Check(sqlite3_bind_blob64(statement_, ++bound_, value.data(), value.size(), SQLITE_TRANSIENT));
    return *this;
}

bool Statement::Step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) {
        return true;
    }
    if (result != SQLITE_DONE) {
        Reset();
        database_.Check(result);
    }
    return false;
}

void Statement::Run() {
    while (Step()) {
    }
    Reset();
}

void Statement::Reset() {
    sqlite3_reset(statement_); // It repeats the result of the last step, which was looked at.
    sqlite3_clear_bindings(statement_);
    bound_ = 0;
}

std::uint64_t Statement::Number(int column) const {
    return static_cast<std::uint64_t>(sqlite3_column_int64(statement_, column));
}

std::string Statement::Text(int column) const {
    const void* const bytes = sqlite3_column_blob(statement_, column);
    const int length = sqlite3_column_bytes(statement_, column);
    return bytes == nullptr ? std::string()
                            : std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(length));
}

Database::Database(const std::string& path, const char* vfs, bool readOnly) : path_(path) {
    const int flags = readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    const int result = sqlite3_open_v2(path.c_str(), &database_, flags | SQLITE_OPEN_NOMUTEX, vfs);
    if (result != SQLITE_OK) {
        const std::string reason = database_ != nullptr ? sqlite3_errmsg(database_) : sqlite3_errstr(result);
        sqlite3_close_v2(database_);
        throw FileError("open the catalogue (" + reason + ")", path, ErrnoOf(result));
    }
    // Its content is not trusted: nothing in it may run, and no length in it sizes an allocation beyond this.
    sqlite3_limit(database_, SQLITE_LIMIT_LENGTH, kLongestValue);
    for (const int option :
         {SQLITE_DBCONFIG_ENABLE_TRIGGER, SQLITE_DBCONFIG_ENABLE_VIEW, SQLITE_DBCONFIG_TRUSTED_SCHEMA}) {
        sqlite3_db_config(database_, option, 0, nullptr);
    }
    sqlite3_db_config(database_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
}

void Database::ReserveInPages(int bytes) {
    Check(sqlite3_file_control(database_, "main", SQLITE_FCNTL_RESERVE_BYTES, &bytes));
}

std::uint64_t Database::Ask(const std::string& sql) {
    Statement row(*this, sql);
    return row.Step() ? row.Number(0) : 0;
}

Database::~Database() {
    sqlite3_close_v2(database_);
}

void Database::Execute(const std::string& sql) {
    Check(sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, nullptr));
}

std::uint64_t Database::LastInsertId() const {
    return static_cast<std::uint64_t>(sqlite3_last_insert_rowid(database_));
}

bool Database::InTransaction() const {
    return sqlite3_get_autocommit(database_) == 0;
}

void Database::SetLogPages(int pages) {
    logPages_ = pages;
    sqlite3_wal_hook(database_, &OnLogWritten, this);
}

/// In place of SQLite's own, which tells nobody of an error.
int Database::OnLogWritten(void* self, sqlite3* database, const char* name, int pages) {
    if (pages < static_cast<const Database*>(self)->logPages_) {
        return SQLITE_OK;
    }
    const int result = sqlite3_wal_checkpoint_v2(database, name, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    return (result & 0xFF) == SQLITE_FULL ? SQLITE_OK : result;
}

void Database::KeepLog() {
    sqlite3_db_config(database_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

void Database::SyncLog() {
    OnLog([](sqlite3_file* log) { return log->pMethods->xSync(log, SQLITE_SYNC_NORMAL); });
}

void Database::WriteOutLog() {
    OnLog([](sqlite3_file* log) { return log->pMethods->xFileControl(log, SqliteVfs::kWriteOut, nullptr); });
}

void Database::OnLog(int (*operation)(sqlite3_file*)) {
    sqlite3_file* log = nullptr;
    Check(sqlite3_file_control(database_, "main", SQLITE_FCNTL_JOURNAL_POINTER, &log));
    const int result = log == nullptr || log->pMethods == nullptr ? SQLITE_OK : operation(log);
    if (result != SQLITE_OK) {
        throw FileError("sync the log of the catalogue", path_, ErrnoOf(result));
    }
}

void Database::Check(int result) const {
    if (result != SQLITE_OK) {
        throw FileError(std::string("use the catalogue (") + sqlite3_errmsg(database_) + ")", path_,
                        ErrnoOf(sqlite3_extended_errcode(database_)));
    }
}

} // namespace drenn::multi_track_recorder
