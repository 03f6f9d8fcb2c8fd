// A database for each track, appended to at its end.

#include <lmdb.h>

#include <array>
#include <cstring>
#include <stdexcept>

#include "Input.h"
#include "Peer.h"

namespace {

constexpr std::size_t kMapBytes = std::size_t{2} << 30U;

void Check(int result) {
    if (result != 0) {
        throw std::runtime_error(mdb_strerror(result));
    }
}

class LmdbPeer : public Peer {
public:
    LmdbPeer(const std::string& folder, bool isNew) {
        Check(mdb_env_create(&environment_));
        Check(mdb_env_set_mapsize(environment_, kMapBytes));
        Check(mdb_env_set_maxdbs(environment_, Input::kTracks));
        Check(mdb_env_open(environment_, folder.c_str(), isNew ? 0 : MDB_RDONLY, 0644));
        Check(mdb_txn_begin(environment_, nullptr, isNew ? 0 : MDB_RDONLY, &transaction_));
        for (unsigned track = 0; track < Input::kTracks; ++track) {
            Check(mdb_dbi_open(transaction_, std::to_string(track).c_str(),
                               MDB_INTEGERKEY | (isNew ? MDB_CREATE : 0U), &tables_[track]));
        }
    }
    ~LmdbPeer() override {
        mdb_txn_abort(transaction_);
        mdb_env_close(environment_);
    }

    void Append(const InputRecord& record) override {
        std::uint32_t index = record.index;
        MDB_val key{sizeof index, &index};
        MDB_val value{record.Bytes(), nullptr};
        Check(mdb_put(transaction_, tables_[record.track], &key, &value, MDB_APPEND | MDB_RESERVE));
        auto* const bytes = static_cast<unsigned char*>(value.mv_data);
        std::memcpy(bytes, record.header, InputRecord::kHeaderBytes);
        std::memcpy(bytes + InputRecord::kHeaderBytes, record.body, record.bodyBytes);
    }
    void Commit() override {
        Check(mdb_txn_commit(transaction_));
        Check(mdb_txn_begin(environment_, nullptr, 0, &transaction_));
    }
    void ReadHeader(unsigned track, std::uint32_t index, Content& out) override {
        const MDB_val value = Get(track, index);
        const auto* const bytes = static_cast<const unsigned char*>(value.mv_data);
        out.assign(bytes, bytes + InputRecord::kHeaderBytes);
    }
    void Read(const InputRecord& wanted, std::vector<Span>& out) override {
        const MDB_val value = Get(wanted.track, wanted.index);
        out = {{static_cast<const unsigned char*>(value.mv_data), value.mv_size}};
    }

private:
    MDB_val Get(unsigned track, std::uint32_t index) {
        MDB_val key{sizeof index, &index};
        MDB_val value{};
        Check(mdb_get(transaction_, tables_[track], &key, &value));
        return value;
    }

    MDB_env* environment_ = nullptr;
    MDB_txn* transaction_ = nullptr;
    std::array<MDB_dbi, Input::kTracks> tables_{};
};

} // namespace

std::unique_ptr<Peer> MakeLmdbPeer(const std::string& folder, bool isNew) {
    return std::make_unique<LmdbPeer>(folder, isNew);
}
