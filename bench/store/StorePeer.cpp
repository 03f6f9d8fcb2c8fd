// The recording store. Its threads do not run: as with the others, somebody else says when a second is over.

#include "Input.h"
#include "Peer.h"
#include "StoreFolder.h"

namespace {

using drenn::multi_track_recorder::BlobRecord;
using drenn::multi_track_recorder::Recording;
using drenn::multi_track_recorder::Store;
using drenn::multi_track_recorder::Track;
using drenn::multi_track_recorder::TrackClass;

class StorePeer : public Peer {
public:
    StorePeer(const std::string& folder, bool isNew)
        : store_(drenn::multi_track_recorder::PosixFileSystem(), StoreIn(folder)) {
        const auto recording = isNew ? store_.NewRecording() : store_.GetRecordings().front().lock();
        for (unsigned track = 0; isNew && track < Input::kTracks; ++track) {
            recording->newTrack(track == Input::kHistory ? TrackClass::Sparse : TrackClass::Bulk);
        }
        for (const auto& track : recording->getTracks()) {
            tracks_.push_back(track.lock());
        }
    }

    void Append(const InputRecord& record) override {
        BlobRecord blobs;
        blobs.add({record.header, InputRecord::kHeaderBytes});
        blobs.add({record.body, record.bodyBytes});
        *tracks_[record.track] << blobs;
    }
    void Commit() override {
        store_.Sync();
        store_.Keep();
    }
    void ReadHeader(unsigned track, std::uint32_t index, Content& out) override {
        BlobRecord record(1);
        tracks_[track]->seekg(index);
        *tracks_[track] >> record;
        const auto& first = record.blobs().at(0);
        out.assign(first.data(), first.data() + first.size());
    }
    void Read(const InputRecord& wanted, std::vector<Span>& out) override {
        tracks_[wanted.track]->seekg(wanted.index);
        *tracks_[wanted.track] >> record_;
        out.clear();
        for (const auto& blob : record_.blobs()) {
            out.push_back({blob.data(), blob.size()});
        }
    }

private:
    BlobRecord record_;
    Store store_;
    std::vector<boost::shared_ptr<Track>> tracks_;
};

} // namespace

std::unique_ptr<Peer> MakeStorePeer(const std::string& folder, bool isNew) {
    return std::make_unique<StorePeer>(folder, isNew);
}
