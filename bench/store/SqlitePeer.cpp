// Records as rows, a table for each track.

#include <sqlite3.h>

#include <array>
#include <stdexcept>

#include "Input.h"
#include "Peer.h"

namespace {

class SqlitePeer : public Peer {
public:
    SqlitePeer(const std::string& folder, bool isNew) {
        Check(sqlite3_open((folder + "/records").c_str(), &database_));
        Run("PRAGMA locking_mode=EXCLUSIVE");
        Run("PRAGMA journal_mode=WAL");
        Run("PRAGMA synchronous=FULL");
        for (unsigned track = 0; track < Input::kTracks; ++track) {
            const std::string table = "t" + std::to_string(track);
            if (isNew) {
                Run("CREATE TABLE " + table + "(id INTEGER PRIMARY KEY, header BLOB, body BLOB)");
            }
            insert_[track] = Prepare("INSERT INTO " + table + " VALUES(?, ?, ?)");
            header_[track] = Prepare("SELECT header FROM " + table + " WHERE id=?");
            record_[track] = Prepare("SELECT header, body FROM " + table + " WHERE id=?");
        }
        Run("BEGIN");
    }
    ~SqlitePeer() override {
        for (const auto* statements : {&insert_, &header_, &record_}) {
            for (sqlite3_stmt* statement : *statements) {
                sqlite3_finalize(statement);
            }
        }
        sqlite3_exec(database_, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(database_);
    }

    void Append(const InputRecord& record) override {
        sqlite3_stmt* const statement = insert_[record.track];
        Check(sqlite3_bind_int64(statement, 1, record.index));
        Check(sqlite3_bind_blob(statement, 2, record.header, InputRecord::kHeaderBytes, SQLITE_STATIC));
        Check(
            sqlite3_bind_blob(statement, 3, record.body, static_cast<int>(record.bodyBytes), SQLITE_STATIC));
        if (sqlite3_step(statement) != SQLITE_DONE) {
            Fail();
        }
        Check(sqlite3_reset(statement));
    }
    void Commit() override {
        Run("COMMIT");
        Run("BEGIN");
    }
    void ReadHeader(unsigned track, std::uint32_t index, Content& out) override {
        const Span header = Select(header_[track], index, 1).front();
        out.assign(header.data, header.data + header.size);
    }
    void Read(const InputRecord& wanted, std::vector<Span>& out) override {
        out = Select(record_[wanted.track], wanted.index, 2);
    }

private:
    [[noreturn]] void Fail() const { throw std::runtime_error(sqlite3_errmsg(database_)); }
    void Check(int result) const {
        if (result != SQLITE_OK) {
            Fail();
        }
    }
    void Run(const std::string& sql) {
        Check(sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, nullptr));
    }
    sqlite3_stmt* Prepare(const std::string& sql) {
        sqlite3_stmt* statement = nullptr;
        Check(sqlite3_prepare_v3(database_, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
        return statement;
    }
    /// The columns of the row, which stay until the statement is used again.
    const std::vector<Span>& Select(sqlite3_stmt* statement, std::uint32_t index, int columns) {
        Check(sqlite3_reset(statement));
        Check(sqlite3_bind_int64(statement, 1, index));
        if (sqlite3_step(statement) != SQLITE_ROW) {
            Fail();
        }
        row_.clear();
        for (int column = 0; column < columns; ++column) {
            const auto* const bytes =
                static_cast<const unsigned char*>(sqlite3_column_blob(statement, column));
            row_.push_back({bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement, column))});
        }
        return row_;
    }

    using Statements = std::array<sqlite3_stmt*, Input::kTracks>;
    sqlite3* database_ = nullptr;
    Statements insert_{};
    Statements header_{};
    Statements record_{};
    std::vector<Span> row_;
};

} // namespace

std::unique_ptr<Peer> MakeSqlitePeer(const std::string& folder, bool isNew) {
    return std::make_unique<SqlitePeer>(folder, isNew);
}
