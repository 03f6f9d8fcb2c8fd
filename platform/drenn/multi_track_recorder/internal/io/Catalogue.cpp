#include "drenn/multi_track_recorder/internal/io/Catalogue.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "drenn/multi_track_recorder/internal/io/SqliteVfs.h"

namespace drenn::multi_track_recorder {
namespace {

// Without exclusive locking before the first access, the write-ahead log needs shared memory, which a pulled card
// turns into SIGBUS.
constexpr char kPragmas[] =
    "PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA mmap_size=0;"
    "PRAGMA cache_size=-512; PRAGMA foreign_keys=OFF; PRAGMA "
    "journal_size_limit=262144; PRAGMA temp_store=MEMORY; PRAGMA cell_size_check=ON;";
constexpr char kReadPragmas[] =
    "PRAGMA locking_mode=EXCLUSIVE; PRAGMA mmap_size=0; PRAGMA temp_store=MEMORY; PRAGMA cell_size_check=ON;";
constexpr char kBuildPragmas[] =
    "PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=MEMORY; PRAGMA synchronous=OFF; PRAGMA mmap_size=0;"
    "PRAGMA temp_store=MEMORY;";
constexpr char kDamageTable[] =
    "CREATE TABLE IF NOT EXISTS damage(lane INTEGER, sequence INTEGER, first INTEGER, end INTEGER NOT NULL,"
    " kind INTEGER NOT NULL, PRIMARY KEY(lane, sequence, first)) WITHOUT ROWID;";
// Another table, since earlier versions know the columns of `segments` and `extents`.
constexpr char kHintTable[] =
    "CREATE TABLE IF NOT EXISTS hints(lane INTEGER, sequence INTEGER, salt BLOB NOT NULL,"
    " leading BLOB NOT NULL, PRIMARY KEY(lane, sequence)) WITHOUT ROWID;";

constexpr char kTables[] =
    "CREATE TABLE store(id BLOB NOT NULL, version INTEGER NOT NULL);"
    "CREATE TABLE recordings(id INTEGER PRIMARY KEY AUTOINCREMENT, info BLOB NOT NULL);"
    "CREATE TABLE tracks(id INTEGER PRIMARY KEY AUTOINCREMENT, recording INTEGER NOT NULL,"
    " sparse INTEGER NOT NULL, format_name BLOB NOT NULL, format_version INTEGER NOT NULL,"
    " first_serial INTEGER NOT NULL, next_serial INTEGER NOT NULL);"
    "CREATE TABLE lanes(id INTEGER PRIMARY KEY, next_sequence INTEGER NOT NULL);"
    "CREATE TABLE segments(lane INTEGER, sequence INTEGER, length INTEGER NOT NULL, time INTEGER NOT NULL,"
    " removing INTEGER NOT NULL, PRIMARY KEY(lane, sequence)) WITHOUT ROWID;"
    "CREATE TABLE extents(track INTEGER, lane INTEGER, sequence INTEGER, first_serial INTEGER,"
    " count INTEGER NOT NULL, PRIMARY KEY(lane, sequence, track, first_serial)) WITHOUT ROWID;"
    "CREATE TABLE erased(track INTEGER, first INTEGER, end INTEGER NOT NULL, PRIMARY KEY(track, first))"
    " WITHOUT ROWID;"
    "CREATE TABLE infos(track INTEGER, from_serial INTEGER, text BLOB NOT NULL,"
    " PRIMARY KEY(track, from_serial));";

constexpr int kLogPages = 64; // 1/4 MiB.

const char* SynchronousOf(Catalogue::Durability durability) {
    switch (durability) {
        case Catalogue::Durability::AtOnce:
            return "PRAGMA synchronous=FULL";
        case Catalogue::Durability::WithSyncLog:
            return "PRAGMA synchronous=NORMAL";
        case Catalogue::Durability::WithFile:
            break;
    }
    return "PRAGMA synchronous=OFF";
}

} // namespace

Catalogue::Catalogue(const std::string& path, const char* vfs, Mode mode)
    : database_(path, vfs, mode == Mode::ReadOnly) {
    if (mode == Mode::ReadOnly) {
        database_.Execute(kReadPragmas);
        return;
    }
    database_.ReserveInPages(SqliteVfs::kReservedBytes); // Before the first page is made.
    database_.Execute(mode == Mode::Build ? kBuildPragmas : kPragmas);
    database_.SetLogPages(kLogPages);
    if (HasTable("store")) {
        Upgrade();
    }
}

void Catalogue::Build(const std::string& path, const char* vfs,
                      const std::function<void(Transaction&)>& fill) {
    Catalogue catalogue(path, vfs, Mode::Build);
    {
        Transaction transaction(catalogue, Durability::WithFile);
        fill(transaction);
        transaction.Commit();
    }
    catalogue.database_.Execute("PRAGMA journal_mode=WAL"); // So that opening need not change it.
}

/// What earlier versions did not have. Without room they stay as they are.
void Catalogue::Upgrade() {
    try {
        database_.Execute(kDamageTable);
        if (database_.Ask("PRAGMA user_version") < SqliteVfs::kChecksummedVersion) {
            database_.Execute("VACUUM");
            database_.Execute("PRAGMA user_version=" + std::to_string(SqliteVfs::kChecksummedVersion));
        }
    } catch (const FileError& error) {
        if (!error.IsOutOfSpace()) {
            throw;
        }
    }
}

bool Catalogue::HasTable(const char* name) {
    return database_.Ask(std::string("SELECT count(*) FROM sqlite_master WHERE type='table' AND name='") +
                         name + "'") != 0;
}

Catalogue::~Catalogue() {
    statements_.clear();
}

StoreId Catalogue::GetId() {
    const std::lock_guard<std::mutex> lock(mutex_);
    StoreId id{};
    if (!HasTable("store")) {
        return id;
    }
    Statement row(database_, "SELECT id FROM store");
    if (row.Step()) {
        const std::string bytes = row.Text(0);
        std::copy_n(bytes.begin(), std::min(bytes.size(), id.size()), id.begin());
    }
    return id;
}

void Catalogue::RequireVersion() {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::uint64_t pages = database_.Ask("PRAGMA user_version");
    const std::uint64_t version = HasTable("store") ? database_.Ask("SELECT version FROM store") : 0;
    if (version > kVersion || pages > SqliteVfs::kChecksummedVersion) {
        throw LaterVersionError(database_.Path(),
                                std::to_string(version) + ", pages " + std::to_string(pages));
    }
}

std::string Catalogue::GetInfo(std::uint32_t track, std::uint64_t from) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Statement& row = Prepared("SELECT text FROM infos WHERE track=? AND from_serial=?");
    const bool found = row.Bind(track).Bind(from).Step();
    std::string text = found ? row.Text(0) : std::string();
    row.Reset();
    return text;
}

std::vector<std::string> Catalogue::Check() {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> wrong;
    for (Statement row(database_, "PRAGMA integrity_check"); row.Step();) {
        if (row.Text(0) != "ok") {
            wrong.push_back(database_.Path() + ": " + row.Text(0));
        }
    }
    return wrong;
}

Statement& Catalogue::Prepared(const char* sql) {
    // The statements are literals, so the same one has the same address.
    for (const auto& [text, statement] : statements_) {
        if (text == sql) {
            return *statement;
        }
    }
    statements_.emplace_back(sql, std::make_unique<Statement>(database_, sql));
    return *statements_.back().second;
}

bool Catalogue::BeginSyncLog() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (needsSyncLog_) {
        OnLog([this] { database_.WriteOutLog(); });
    }
    return needsSyncLog_;
}

void Catalogue::LengthenLog() {
    const std::lock_guard<std::mutex> lock(mutex_);
    database_.SetLogPages(3 * kLogPages);
    database_.Execute("PRAGMA journal_size_limit=524288");
}

void Catalogue::SyncLog() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (needsSyncLog_) {
        OnLog([this] { database_.SyncLog(); });
        needsSyncLog_ = false;
    }
}

/// When it fails, nothing behind it in the log is durable, whatever a later sync says: there are no more transactions, and
/// nothing of the log is brought into the database.
template <typename Step>
void Catalogue::OnLog(const Step& step) {
    try {
        step();
    } catch (const FileError& error) {
        if (!error.IsOutOfSpace()) {
            isBroken_ = true;
            database_.KeepLog();
        }
        throw;
    }
}

Catalogue::Transaction::Transaction(Catalogue& catalogue, Durability durability)
    : catalogue_(catalogue), durability_(durability), lock_(catalogue.mutex_) {
    if (catalogue.isBroken_) { // Since this thread has seen that the store is good.
        throw FileError("use the catalogue, whose log could not be synced", catalogue.database_.Path(), EIO);
    }
    // Each time: it cannot be changed within a transaction, and no transaction depends on how the last one ended.
    catalogue_.database_.Execute(SynchronousOf(durability));
    catalogue_.database_.Execute("BEGIN IMMEDIATE");
}

Catalogue::Transaction::~Transaction() {
    if (committed_ || !catalogue_.database_.InTransaction()) {
        return;
    }
    try {
        catalogue_.database_.Execute("ROLLBACK");
    } catch (const std::exception&) {
        // SQLite rolls back by itself when it opens the database the next time.
    }
}

Statement& Catalogue::Transaction::operator()(const char* sql) {
    return catalogue_.Prepared(sql);
}

void Catalogue::Transaction::Make(const StoreId& id) {
    catalogue_.database_.Execute(kTables);
    catalogue_.database_.Execute(kDamageTable);
    catalogue_.database_.Execute("PRAGMA user_version=" + std::to_string(SqliteVfs::kChecksummedVersion));
    (*this)("INSERT INTO store VALUES(?, 1)").Bind(std::string(id.begin(), id.end())).Run();
}

std::uint32_t Catalogue::Transaction::AddRecording() {
    (*this)("INSERT INTO recordings(info) VALUES(x'')").Run();
    return static_cast<std::uint32_t>(catalogue_.database_.LastInsertId());
}

void Catalogue::Transaction::SetRecordingInfo(std::uint32_t recording, const std::string& info) {
    (*this)("UPDATE recordings SET info=? WHERE id=?").Bind(info).Bind(recording).Run();
}

std::uint32_t Catalogue::Transaction::AddTrack(std::uint32_t recording, bool sparse) {
    (*this)(
        "INSERT INTO tracks(recording, sparse, format_name, format_version, first_serial, next_serial)"
        " VALUES(?, ?, x'', 0, 0, 0)")
        .Bind(recording)
        .Bind(sparse ? 1 : 0)
        .Run();
    return static_cast<std::uint32_t>(catalogue_.database_.LastInsertId());
}

void Catalogue::Transaction::SetFormat(std::uint32_t track, const std::string& name, std::uint32_t version) {
    (*this)("UPDATE tracks SET format_name=?, format_version=? WHERE id=?")
        .Bind(name)
        .Bind(version)
        .Bind(track)
        .Run();
}

void Catalogue::Transaction::RemoveTrack(std::uint32_t track) {
    (*this)("DELETE FROM tracks WHERE id=?").Bind(track).Run();
    (*this)("DELETE FROM erased WHERE track=?").Bind(track).Run();
    (*this)("DELETE FROM infos WHERE track=?").Bind(track).Run();
}

void Catalogue::Transaction::SetErased(std::uint32_t track, std::uint64_t firstSerial,
                                       const std::vector<SerialRange>& erased) {
    (*this)("UPDATE tracks SET first_serial=? WHERE id=?").Bind(firstSerial).Bind(track).Run();
    (*this)("DELETE FROM erased WHERE track=?").Bind(track).Run();
    for (const SerialRange& range : erased) {
        (*this)("INSERT INTO erased VALUES(?, ?, ?)").Bind(track).Bind(range.first).Bind(range.end).Run();
    }
    (*this)(
        "DELETE FROM infos WHERE track=? AND from_serial <"
        " (SELECT max(from_serial) FROM infos WHERE track=? AND from_serial<=?)")
        .Bind(track)
        .Bind(track)
        .Bind(firstSerial)
        .Run();
}

void Catalogue::Transaction::AddSegment(const SegmentRow& segment) {
    (*this)("INSERT INTO segments VALUES(?, ?, ?, ?, 0)")
        .Bind(segment.key.lane)
        .Bind(segment.key.sequence)
        .Bind(segment.length)
        .Bind(segment.time)
        .Run();
    (*this)(
        "INSERT INTO lanes VALUES(?, ?) ON CONFLICT(id) DO UPDATE SET"
        " next_sequence=max(next_sequence, excluded.next_sequence)")
        .Bind(segment.key.lane)
        .Bind(segment.key.sequence + 1)
        .Run();
}

void Catalogue::Transaction::AddExtent(const ExtentRow& extent) {
    (*this)("INSERT INTO extents VALUES(?, ?, ?, ?, ?)")
        .Bind(extent.track)
        .Bind(extent.segment.lane)
        .Bind(extent.segment.sequence)
        .Bind(extent.firstSerial)
        .Bind(extent.count)
        .Run();
    SetNextSerial(extent.track, extent.firstSerial + extent.count);
}

void Catalogue::Transaction::AddHint(SegmentKey segment, std::uint64_t salt,
                                     const std::vector<ExtentRow>& extents) {
    Bytes saltBytes;
    ByteWriter(saltBytes).U64(salt);
    Bytes leading;
    ByteWriter writer(leading);
    for (const ExtentRow& extent : extents) {
        if (extent.hint) {
            writer.U32(extent.track);
            writer.U64(extent.firstSerial);
            writer.Raw(extent.hint->leading.data(), extent.hint->leading.size());
            writer.U32(extent.track | kStepOfTrack);
            writer.U64(extent.firstSerial);
            writer.U64(extent.hint->last);
            writer.U64(extent.hint->step);
        }
    }
    catalogue_.database_.Execute(kHintTable); // An earlier version had none.
    (*this)("INSERT OR REPLACE INTO hints VALUES(?, ?, ?, ?)")
        .Bind(segment.lane)
        .Bind(segment.sequence)
        .Bind(std::string(saltBytes.begin(), saltBytes.end()))
        .Bind(std::string(leading.begin(), leading.end()))
        .Run();
}

void Catalogue::Transaction::AddInfo(const InfoRow& info) {
    (*this)("INSERT OR REPLACE INTO infos VALUES(?, ?, ?)")
        .Bind(info.track)
        .Bind(info.from)
        .Bind(info.text)
        .Run();
}

void Catalogue::Transaction::AddDamage(const DamageRow& damage) {
    catalogue_.database_.Execute(kDamageTable); // An earlier version had none.
    (*this)("INSERT OR REPLACE INTO damage VALUES(?, ?, ?, ?, ?)")
        .Bind(damage.segment.lane)
        .Bind(damage.segment.sequence)
        .Bind(damage.first)
        .Bind(damage.end)
        .Bind(static_cast<std::uint32_t>(damage.kind))
        .Run();
}

void Catalogue::Transaction::SetNextSerial(std::uint32_t track, std::uint64_t serial) {
    (*this)("UPDATE tracks SET next_serial=max(next_serial, ?) WHERE id=?").Bind(serial).Bind(track).Run();
}

void Catalogue::Transaction::SetRemoving(SegmentKey segment) {
    (*this)("UPDATE segments SET removing=1 WHERE lane=? AND sequence=?")
        .Bind(segment.lane)
        .Bind(segment.sequence)
        .Run();
}

void Catalogue::Transaction::Forget(SegmentKey segment) {
    (*this)("DELETE FROM extents WHERE lane=? AND sequence=?")
        .Bind(segment.lane)
        .Bind(segment.sequence)
        .Run();
    if (catalogue_.HasTable("damage")) { // There may have been no room for it.
        (*this)("DELETE FROM damage WHERE lane=? AND sequence=?")
            .Bind(segment.lane)
            .Bind(segment.sequence)
            .Run();
    }
    if (catalogue_.HasTable("hints")) {
        (*this)("DELETE FROM hints WHERE lane=? AND sequence=?")
            .Bind(segment.lane)
            .Bind(segment.sequence)
            .Run();
    }
    (*this)("DELETE FROM segments WHERE lane=? AND sequence=?")
        .Bind(segment.lane)
        .Bind(segment.sequence)
        .Run();
}

void Catalogue::Transaction::Restore(const RecordingRow& recording) {
    (*this)("INSERT INTO recordings VALUES(?, ?)").Bind(recording.id).Bind(recording.info).Run();
}

void Catalogue::Transaction::Restore(const TrackRow& track) {
    (*this)("INSERT INTO tracks VALUES(?, ?, ?, ?, ?, ?, ?)")
        .Bind(track.id)
        .Bind(track.recording)
        .Bind(track.sparse ? 1 : 0)
        .Bind(track.formatName)
        .Bind(track.formatVersion)
        .Bind(track.firstSerial)
        .Bind(track.nextSerial)
        .Run();
}

void Catalogue::Transaction::ReserveTracks(std::uint32_t last) {
    (*this)("INSERT INTO tracks VALUES(?, 0, 0, x'', 0, 0, 0)").Bind(last).Run();
    RemoveTrack(last);
}

void Catalogue::Transaction::Commit() {
    catalogue_.OnLog([this] { catalogue_.database_.Execute("COMMIT"); });
    committed_ = true;
    catalogue_.needsSyncLog_ = catalogue_.needsSyncLog_ || durability_ == Durability::WithSyncLog;
}

} // namespace drenn::multi_track_recorder
