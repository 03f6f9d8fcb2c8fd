// Keys of track and index; as it comes, and with large values in files of their own.

#include <rocksdb/db.h>

#include <stdexcept>

#include "Peer.h"

namespace {

void Check(const rocksdb::Status& status) {
    if (!status.ok()) {
        throw std::runtime_error(status.ToString());
    }
}

// Highest byte first, so that keys lie in the order of records.
std::string KeyOf(unsigned track, std::uint32_t index) {
    std::string key(1, static_cast<char>(track));
    for (unsigned shift : {24U, 16U, 8U, 0U}) {
        key += static_cast<char>(index >> shift);
    }
    return key;
}

class RocksPeer : public Peer {
public:
    RocksPeer(const std::string& folder, bool isNew, bool withBlobs) {
        rocksdb::Options options;
        options.create_if_missing = isNew;
        options.compression = rocksdb::kNoCompression; // Video is compressed already.
        options.enable_blob_files = withBlobs;
        options.min_blob_size = 4096;
        rocksdb::DB* opened = nullptr;
        Check(rocksdb::DB::Open(options, folder + "/rocks", &opened));
        database_.reset(opened);
    }

    void Append(const InputRecord& record) override {
        const std::string key = KeyOf(record.track, record.index);
        const rocksdb::Slice keyPart(key);
        const rocksdb::Slice parts[] = {
            {reinterpret_cast<const char*>(record.header), InputRecord::kHeaderBytes},
            {reinterpret_cast<const char*>(record.body), record.bodyBytes}};
        Check(batch_.Put(rocksdb::SliceParts(&keyPart, 1), rocksdb::SliceParts(parts, 2)));
    }
    void Commit() override {
        rocksdb::WriteOptions durable;
        durable.sync = true;
        Check(database_->Write(durable, &batch_));
        batch_.Clear();
    }
    void ReadHeader(unsigned track, std::uint32_t index, Content& out) override {
        Get(track, index);
        out.assign(value_.data(), value_.data() + InputRecord::kHeaderBytes);
    }
    void Read(const InputRecord& wanted, std::vector<Span>& out) override {
        Get(wanted.track, wanted.index);
        out = {{reinterpret_cast<const unsigned char*>(value_.data()), value_.size()}};
    }

private:
    void Get(unsigned track, std::uint32_t index) {
        value_.Reset();
        Check(database_->Get(rocksdb::ReadOptions(), database_->DefaultColumnFamily(), KeyOf(track, index),
                             &value_));
    }

    std::unique_ptr<rocksdb::DB> database_;
    rocksdb::WriteBatch batch_;
    rocksdb::PinnableSlice value_;
};

} // namespace

std::unique_ptr<Peer> MakeRocksPeer(const std::string& folder, bool isNew) {
    return std::make_unique<RocksPeer>(folder, isNew, false);
}

std::unique_ptr<Peer> MakeRocksBlobPeer(const std::string& folder, bool isNew) {
    return std::make_unique<RocksPeer>(folder, isNew, true);
}
