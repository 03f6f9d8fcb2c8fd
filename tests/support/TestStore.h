#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "drenn/multi_track_recorder/internal/Store.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "support/TempFolder.h"

/// A store in a temporary folder that does nothing by itself, to be opened again and again.
class TestStore {
public:
    using Store = drenn::multi_track_recorder::Store;
    using Track = drenn::multi_track_recorder::Track;
    using TrackClass = drenn::multi_track_recorder::TrackClass;

    explicit TestStore(std::uint32_t segmentBytes = 64 * 1024) {
        options.storage = folder.Path("data");
        options.database = folder.Path("database");
        options.segmentBytes = segmentBytes;
        options.maxPercent = 100;
        options.background = false;
        Open();
    }
    void Open() {
        store = nullptr;
        store = std::make_unique<Store>(drenn::multi_track_recorder::PosixFileSystem(), options);
    }
    /// What the check of the closed store finds.
    std::vector<std::string> Verify() {
        store = nullptr;
        return VerifyStore(drenn::multi_track_recorder::PosixFileSystem(), options.storage, options.database);
    }
    /// A track of the first recording, which is made if there is none.
    boost::shared_ptr<Track> NewTrack(TrackClass trackClass = TrackClass::Bulk) {
        const auto recordings = store->GetRecordings();
        const auto recording = recordings.empty() ? store->NewRecording() : recordings.front().lock();
        return recording->newTrack(trackClass);
    }
    boost::shared_ptr<Track> GetTrack(int place = 0) {
        return std::next(store->GetRecordings().front().lock()->getTracks().begin(), place)->lock();
    }

    TempFolder folder;
    drenn::multi_track_recorder::StoreOptions options;
    std::unique_ptr<Store> store;
};

inline void AppendText(drenn::multi_track_recorder::Track& track, const std::string& text) {
    drenn::multi_track_recorder::BlobRecord record;
    record.add({text.data(), text.size()});
    track << record;
}

/// The blobs of a record, as texts.
inline std::vector<std::string> BlobsAt(drenn::multi_track_recorder::Track& track, unsigned index,
                                        int limit = -1) {
    drenn::multi_track_recorder::BlobRecord record(limit);
    track.seekg(index);
    track >> record;
    std::vector<std::string> texts;
    for (const auto& blob : record.blobs()) {
        texts.emplace_back(reinterpret_cast<const char*>(blob.data()), blob.size());
    }
    return texts;
}

inline std::string TextAt(drenn::multi_track_recorder::Track& track, unsigned index) {
    return BlobsAt(track, index).at(0);
}
