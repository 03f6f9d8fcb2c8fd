// A store whose newest segment is any bytes opens and can be read and written; it is the same when opened again. The
// first byte of an input: whether the segment is made to look like one of this store, with checksums that are right.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "Require.h"
#include "StoreBytes.h"
#include "drenn/multi_track_recorder/internal/Store.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/store/SimFileSystem.h"

namespace {

using namespace drenn::multi_track_recorder;

StoreOptions Options() {
    StoreOptions options;
    options.storage = "/card/data";
    options.database = "/card/database";
    options.background = false;
    return options;
}

/// A store with one segment of two tracks.
DiskImage MakeStore() {
    SimFileSystem disk;
    {
        Store store(disk, Options());
        const auto recording = store.NewRecording();
        for (const auto& track : {recording->newTrack(), recording->newTrack()}) {
            for (const char* text : {"first", "second"}) {
                BlobRecord record;
                record.add(Blob(text, 5));
                *track << record;
            }
        }
    }
    return disk.GetImage();
}

/// Of each track its records as texts; of one that cannot be read the reason.
std::vector<std::string> ReadAll(const Store& store) {
    std::vector<std::string> all;
    for (const auto& weak : store.GetRecordings()) {
        for (const auto& track : weak.lock()->getTracks()) {
            all.push_back("track " + std::to_string(track.lock()->size()));
            for (unsigned int i = 0; i < std::min(track.lock()->size(), 200U); ++i) {
                BlobRecord record;
                std::string text;
                try {
                    track.lock()->seekg(i);
                    track.lock()->getInfo(text);
                    *track.lock() >> record;
                    for (const Blob& blob : record.blobs()) {
                        text += "|" + std::string(blob.data(), blob.data() + blob.size());
                    }
                } catch (const std::runtime_error& refusal) {
                    text = refusal.what();
                }
                all.push_back(text);
            }
        }
    }
    return all;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    static const DiskImage made = MakeStore();
    if (size == 0) {
        return 0;
    }
    SimFileSystem disk(made);
    Bytes bytes(data + 1, data + size);
    const bool isMended = data[0] % 2 != 0 && bytes.size() >= kSegmentHeaderBytes;
    if (isMended) {
        const auto sealed = disk.Open("/card/data/00000002-00000001.seg", OpenMode::Read);
        sealed->Read(0, bytes.data(), 36);
        bytes[16] = 2;
        store_bytes::MendSegment(bytes);
    }
    disk.Open("/card/data/00000002-00000002.seg", OpenMode::Create)->Write(0, bytes.data(), bytes.size());
    std::vector<std::string> first;
    {
        Store store(disk, Options());
        first = ReadAll(store);
    }
    // What is whole and yet not of this store's making breaks other promises; another store's segment is left alone.
    for (const std::string& wrong : VerifyStore(disk, "/card/data", "/card/database")) {
        REQUIRE(isMended || wrong.find("Invariant 1: /card/data/00000002-00000002.seg") == 0);
    }
    REQUIRE(disk.Exists("/card/data/00000002-00000001.seg")); // What it had is still there.
    Store again(disk, Options());
    REQUIRE(ReadAll(again) == first);
    BlobRecord record;
    record.add(Blob("more", 4));
    *again.GetRecordings().front().lock()->getTracks().front().lock() << record;
    again.Sync();
    return 0;
}
