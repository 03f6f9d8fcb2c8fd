#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/internal/format/SegmentFormat.h"
#include "drenn/multi_track_recorder/internal/io/Database.h"

namespace drenn::multi_track_recorder {

/// The name of a segment.
struct SegmentKey {
    std::uint32_t lane = 0;
    std::uint32_t sequence = 0;
};
inline bool operator<(SegmentKey a, SegmentKey b) {
    return a.lane != b.lane ? a.lane < b.lane : a.sequence < b.sequence;
}
inline bool operator==(SegmentKey a, SegmentKey b) {
    return a.lane == b.lane && a.sequence == b.sequence;
}

/// A lane is named by its recording and its class.
inline std::uint32_t LaneOf(std::uint32_t recording, bool sparse) {
    return recording * 2 + (sparse ? 1 : 0);
}

/// In a hint, an entry whose track has this bit tells the last number and the step of the records that the entry before
/// begins. Earlier versions find no such track, and pass it over.
constexpr std::uint32_t kStepOfTrack = 1U << 31U;

struct SegmentRow {
    SegmentKey key;
    std::uint64_t length = 0; ///< Valid bytes; what is behind them is the footer.
    std::uint64_t time = 0;   ///< Of the first block.
    bool removing = false;
    std::optional<std::uint64_t> salt; ///< Where a hint tells.
};
struct ExtentRow {
    std::uint32_t track;
    SegmentKey segment;
    std::uint64_t firstSerial;
    std::uint64_t count;
    std::optional<RecordsHint> hint;
};
struct InfoRow {
    std::uint32_t track;
    std::uint64_t from;
    std::string text;     ///< Not loaded by Load.
    bool hasText = false; ///< It is not in the catalogue, but here.
};
struct ErasedRow {
    std::uint32_t track;
    SerialRange range;
};
struct TrackRow {
    std::uint32_t id = 0;
    std::uint32_t recording = 0;
    bool sparse = false;
    std::string formatName;
    std::uint32_t formatVersion = 0;
    std::uint64_t firstSerial = 0;
    std::uint64_t nextSerial = 0; ///< Behind the last record in a sealed segment.
};
/// Bytes of a sealed segment from which nothing could be taken over, and which are kept.
struct DamageRow {
    enum class Kind : std::uint32_t {
        Unfinished = 0, ///< At the end, as a crash leaves them.
        Damaged = 1     ///< With blocks behind them, or in a block.
    };
    SegmentKey segment;
    std::uint64_t first;
    std::uint64_t end;
    Kind kind;
};
/// "FILE: bytes 100 to 200 hold nothing that can be read".
std::string ToText(const DamageRow& row, const std::string& path);
struct RecordingRow {
    std::uint32_t id;
    std::string info;
};

/// Everything that the catalogue knows, in the order of its keys.
struct CatalogueContent {
    std::vector<RecordingRow> recordings;
    std::vector<TrackRow> tracks;
    std::vector<SegmentRow> segments;
    std::vector<ExtentRow> extents;
    std::vector<ErasedRow> erased;
    std::vector<InfoRow> infos;
    std::vector<DamageRow> damage;
    std::vector<SegmentKey> nextSegments; ///< Of each lane: the lowest sequence that was not sealed yet.
};

/// What exists: recordings, tracks, sealed segments, erased ranges, info texts. An SQLite database whose pages carry
/// checksums; one of an earlier version gets them when it is opened for changes and there is room.
///
/// Threads: any. Changes are made through a Transaction, which keeps the others out until it is destroyed, so
///          that tables in memory can be changed with the catalogue as one step.
/// Errors:  FileError, see Database.
class Catalogue {
public:
    enum class Mode {
        OpenOrMake,
        ReadOnly, ///< With a SqliteVfs that is read-only.
        Build     ///< By the function of that name only.
    };
    /// The version of the table `store` that this program writes; later ones are refused by RequireVersion.
    static constexpr std::uint32_t kVersion = 1;
    Catalogue(const std::string& path, const char* vfs, Mode mode);
    ~Catalogue();

    /// All zero when the catalogue has not been made yet.
    StoreId GetId();
    /// Throws std::runtime_error that names the version when a later program made it.
    void RequireVersion();
    /// Throws std::runtime_error when it holds what no store can have.
    CatalogueContent Load();
    std::string GetInfo(std::uint32_t track, std::uint64_t from);
    /// SQLite's own check; lines that say what is wrong.
    std::vector<std::string> Check();

    enum class Durability {
        AtOnce,
        WithSyncLog, ///< Until then a power cut may take it back as a whole.
        WithFile     ///< Of a catalogue that is being built.
    };
    /// Whether a transaction waits for SyncLog. If so, begins what that ends: see IFile::WriteOut.
    bool BeginSyncLog();
    void SyncLog();
    /// Brings the log into the database when it has 3/4 MiB instead of 1/4 MiB: that takes several flushes of the device.
    void LengthenLog();

    /// Durable after Commit, or as told; without Commit, nothing has happened.
    class Transaction {
    public:
        explicit Transaction(Catalogue& catalogue, Durability durability = Durability::AtOnce);
        ~Transaction();
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;

        void Make(const StoreId& id);
        std::uint32_t AddRecording();
        void SetRecordingInfo(std::uint32_t recording, const std::string& info);
        std::uint32_t AddTrack(std::uint32_t recording, bool sparse);
        void SetFormat(std::uint32_t track, const std::string& name, std::uint32_t version);
        void RemoveTrack(std::uint32_t track);
        /// Puts in place of the erased ranges of the track these, and forgets info texts that hold for nothing.
        void SetErased(std::uint32_t track, std::uint64_t firstSerial,
                       const std::vector<SerialRange>& erased);
        void AddSegment(const SegmentRow& segment);
        void AddExtent(const ExtentRow& extent);
        /// What saves reading the segment's header and records when a time is looked for.
        void AddHint(SegmentKey segment, std::uint64_t salt, const std::vector<ExtentRow>& extents);
        void AddInfo(const InfoRow& info);
        void AddDamage(const DamageRow& damage);
        void SetNextSerial(std::uint32_t track, std::uint64_t serial);
        void SetRemoving(SegmentKey segment);
        void Forget(SegmentKey segment);
        /// For a rebuilt catalogue: with the numbers that they had.
        void Restore(const RecordingRow& recording);
        void Restore(const TrackRow& track);
        /// New tracks get numbers above this one.
        void ReserveTracks(std::uint32_t last);
        void Commit();

    private:
        Statement& operator()(const char* sql);
        Catalogue& catalogue_;
        const Durability durability_;
        const std::unique_lock<std::mutex> lock_;
        bool committed_ = false;
    };

    /// Makes a new one with what `fill` does in one transaction, without a log: it takes no more room than it has in the
    /// end. Nothing of it is durable before the caller syncs the file and its folder.
    static void Build(const std::string& path, const char* vfs,
                      const std::function<void(Transaction&)>& fill);

private:
    Statement& Prepared(const char* sql);
    bool HasTable(const char* name);
    template <typename Step>
    void OnLog(const Step& step);
    void LoadHints(CatalogueContent& content);
    void Upgrade();

    std::mutex mutex_;
    bool needsSyncLog_ = false;
    bool isBroken_ = false; ///< The log could not be synced.
    Database database_;
    std::vector<std::pair<const char*, std::unique_ptr<Statement>>> statements_;
};

} // namespace drenn::multi_track_recorder
