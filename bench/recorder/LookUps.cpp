// Records by time: the recorder's, and those of a table in SQLite.

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "Measurements.h"
#include "drenn/multi_track_recorder/Track.h"

namespace {

constexpr std::uint32_t kFirst = 20; ///< That count as cold, when the page cache was empty.
constexpr std::size_t kChecked = 1000;

/// Looks all of them up, and again.
template <typename LookUp>
void Measure(const std::vector<std::int64_t>& times, std::uint32_t records, LookUp lookUp) {
    std::vector<double> cold;
    for (std::uint32_t i = 0; i < kFirst; ++i) {
        const auto begin = Clock::now();
        lookUp(times[i]);
        cold.push_back(SecondsSince(begin));
    }
    for (const std::int64_t time : times) {
        lookUp(time);
    }
    const auto begin = Clock::now();
    for (const std::int64_t time : times) {
        lookUp(time);
    }
    const double warm = SecondsSince(begin) / static_cast<double>(times.size());
    std::printf("{\"records\": %u, \"first\": %.9f, \"cold\": %.9f, \"warm\": %.9f}\n", records, cold.front(),
                MedianOf(cold), warm);
}

class Table {
public:
    explicit Table(const std::string& file) { Check(sqlite3_open(file.c_str(), &database_)); }
    ~Table() {
        sqlite3_finalize(statement_);
        sqlite3_close(database_);
    }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    void Run(const char* sql) { Check(sqlite3_exec(database_, sql, nullptr, nullptr, nullptr)); }
    void Prepare(const char* sql) {
        sqlite3_finalize(statement_);
        statement_ = nullptr;
        Check(sqlite3_prepare_v3(database_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement_, nullptr));
    }
    void Insert(std::int64_t id, std::int64_t time) {
        Check(sqlite3_bind_int64(statement_, 1, id));
        Check(sqlite3_bind_int64(statement_, 2, time));
        if (sqlite3_step(statement_) != SQLITE_DONE) {
            Fail();
        }
        Check(sqlite3_reset(statement_));
    }
    std::int64_t Ask(std::int64_t value) {
        Check(sqlite3_bind_int64(statement_, 1, value));
        if (sqlite3_step(statement_) != SQLITE_ROW) {
            Fail();
        }
        const std::int64_t answer = sqlite3_column_int64(statement_, 0);
        Check(sqlite3_reset(statement_));
        return answer;
    }

private:
    [[noreturn]] void Fail() const { throw std::runtime_error(sqlite3_errmsg(database_)); }
    void Check(int result) const {
        if (result != SQLITE_OK) {
            Fail();
        }
    }

    sqlite3* database_ = nullptr;
    sqlite3_stmt* statement_ = nullptr;
};

} // namespace

void MeasureLookUps(const std::string& card, std::uint32_t count) {
    const Recorder recorder(card);
    const auto& audio = Recorder::Audio();
    Ptime first;
    Ptime last;
    if (!audio.getRecordingTimePeriod(first, last)) {
        throw std::runtime_error(card + " has no audio");
    }
    const auto times = RandomTimes((last - first).total_microseconds(), count);
    const auto lookUp = [&](std::int64_t time) {
        return audio.getTrackIndex(first + boost::posix_time::microseconds(time));
    };
    Measure(times, audio.getTrack()->size(), lookUp);
    for (std::size_t i = 0; i < std::min(kChecked, times.size()); ++i) {
        const unsigned int index = lookUp(times[i]);
        const Ptime t = first + boost::posix_time::microseconds(times[i]);
        if (t < audio.getTimestampAtIndex(index) || !(t < audio.getTimestampAtIndex(index + 1))) {
            throw std::runtime_error("record " + std::to_string(index) +
                                     " is not the one that was looked for");
        }
    }
}

void FillTable(const std::string& card, const std::string& file) {
    const Recorder recorder(card);
    const auto& audio = Recorder::Audio();
    const Ptime first = audio.getTimestampAtIndex(0);
    Table table(file);
    table.Run("CREATE TABLE records(id INTEGER PRIMARY KEY, time INTEGER NOT NULL)");
    table.Run("BEGIN");
    table.Prepare("INSERT INTO records VALUES(?, ?)");
    for (unsigned int index = 0; index < audio.getTrack()->size(); ++index) {
        table.Insert(index, (audio.getTimestampAtIndex(index) - first).total_microseconds());
    }
    table.Run("COMMIT");
    table.Run("CREATE INDEX by_time ON records(time)");
    std::printf("{}\n");
}

void MeasureTable(const std::string& file, std::uint32_t count) {
    Table table(file);
    table.Prepare("SELECT time FROM records WHERE id>=? ORDER BY id DESC LIMIT 1");
    const std::int64_t span = table.Ask(0);
    table.Prepare("SELECT id FROM records WHERE id>=? ORDER BY id DESC LIMIT 1");
    const auto records = static_cast<std::uint32_t>(table.Ask(0) + 1);
    const auto times = RandomTimes(span, count);
    table.Prepare("SELECT id FROM records WHERE time<=? ORDER BY time DESC LIMIT 1");
    Measure(times, records, [&](std::int64_t time) { return table.Ask(time); });
}
