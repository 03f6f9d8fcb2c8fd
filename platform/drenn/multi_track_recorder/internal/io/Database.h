#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "drenn/multi_track_recorder/internal/format/ByteOrder.h"

struct sqlite3;
struct sqlite3_file;
struct sqlite3_stmt;

namespace drenn::multi_track_recorder {

class Database;

/// A prepared statement: Bind the parameters in their order, then Step through the rows, then Reset.
///
/// Errors: as Database.
class Statement {
public:
    Statement(Database& database, const std::string& sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& Bind(std::uint64_t value);
    Statement& Bind(const std::string& value); ///< As a blob: any bytes are kept.
    bool Step();                               ///< False after the last row.
    /// Runs a statement without rows, and makes it ready for the next time.
    void Run();
    void Reset();

    std::uint64_t Number(int column) const;
    std::string Text(int column) const;

private:
    Database& database_;
    sqlite3_stmt* statement_ = nullptr;
    int bound_ = 0;
};

/// One connection to an SQLite database that nobody else has open.
///
/// Threads: one at a time.
/// Errors:  FileError that names the file; its errno is ENOSPC when there was no room, EROFS when the file may
///          not be written, else EIO.
class Database {
public:
    /// Opens or makes it; `vfs` is the name of SQLite's way to files.
    Database(const std::string& path, const char* vfs, bool readOnly = false);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    /// Pages that are made from now on, or by VACUUM, keep this much room at their end.
    void ReserveInPages(int bytes);
    /// The first column of the first row; 0 without one.
    std::uint64_t Ask(const std::string& sql);
    /// One or more statements without results.
    void Execute(const std::string& sql);
    std::uint64_t LastInsertId() const;
    bool InTransaction() const;
    /// Brings the log into the database when a transaction has made it so long. If that fails for other reasons than want of
    /// room, so does what made the transaction, which is in the log all the same.
    void SetLogPages(int pages);
    /// Closing does not bring the log into the database.
    void KeepLog();
    /// Makes durable what has been written to the log, and what begins that: see IFile::WriteOut.
    void SyncLog();
    void WriteOutLog();
    const std::string& Path() const { return path_; }

private:
    friend class Statement;
    void Check(int result) const;
    void OnLog(int (*operation)(sqlite3_file*));
    static int OnLogWritten(void* self, sqlite3* database, const char* name, int pages);

    const std::string path_;
    sqlite3* database_ = nullptr;
    int logPages_ = 0;
};

} // namespace drenn::multi_track_recorder
