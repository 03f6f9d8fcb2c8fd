#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/TestStore.h"
#include "support/store/Workload.h"

// A small store whose records tell their numbers, to be damaged and opened.

inline constexpr char kStorage[] = "/card/data";
inline constexpr char kDatabase[] = "/card/database";
inline constexpr char kSegment[] = "/card/data/00000002-00000001.seg";
inline constexpr unsigned int kRecords = 100;

inline std::string NumberText(unsigned int number) {
    return "record " + std::to_string(number) + std::string(200, '.');
}

/// A store that a crash left open, with durable records in several blocks, an info text before each tenth.
inline DiskImage OpenImage() {
    SimFileSystem disk;
    drenn::multi_track_recorder::Store store(disk, Workload::SmallStore());
    const auto track = store.NewRecording()->newTrack();
    for (unsigned int i = 0; i != kRecords; ++i) {
        if (i % 10 == 0) {
            track->setInfo("info " + std::to_string(i));
            store.Sync();
        }
        AppendText(*track, NumberText(i));
    }
    store.Sync();
    return disk.GetImage();
}

inline DiskImage ClosedImage() {
    SimFileSystem disk(OpenImage());
    { const drenn::multi_track_recorder::Store closed(disk, Workload::SmallStore()); }
    return disk.GetImage();
}

inline boost::shared_ptr<drenn::multi_track_recorder::Track> OnlyTrack(
    const drenn::multi_track_recorder::Store& store) {
    return store.GetRecordings().front().lock()->getTracks().front().lock();
}

/// How many records can be read; every one must be what was appended, under its own info text or none.
inline std::size_t Readable(const drenn::multi_track_recorder::Store& store) {
    std::vector<unsigned int> numbers;
    const auto track = OnlyTrack(store);
    for (unsigned int i = 0; i != track->size(); ++i) {
        std::string text;
        try {
            text = TextAt(*track, i);
        } catch (const std::runtime_error&) {
            continue; // An error is no wrong byte.
        }
        numbers.push_back(static_cast<unsigned int>(std::stoul(text.substr(7))));
        EXPECT_EQ(text, NumberText(numbers.back()));
        std::string info;
        track->seekg(i);
        track->getInfo(info);
        EXPECT_THAT(info, testing::AnyOf("info " + std::to_string(numbers.back() / 10 * 10), "")) << text;
    }
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
    return numbers.size();
}

inline std::vector<unsigned char>& Change(DiskImage& image, const std::string& path) {
    return image.Change(image.names.at(path));
}

inline DiskImage WithoutCatalogue(DiskImage image) {
    for (const char* name : {"/catalogue", "/catalogue-wal"}) {
        image.names.erase(kDatabase + std::string(name));
    }
    return image;
}

inline bool operator==(const DiskImage& a, const DiskImage& b) {
    return a.names == b.names && std::all_of(a.names.begin(), a.names.end(), [&](const auto& name) {
               return *a.files.at(name.second) == *b.files.at(name.second);
           });
}

/// Opens what is there, and a second time, and says what can be read.
inline std::size_t OpenedTwice(const DiskImage& image, std::vector<std::string>* damage = nullptr) {
    SimFileSystem disk(image);
    std::size_t readable = 0;
    {
        const drenn::multi_track_recorder::Store store(disk, Workload::SmallStore());
        readable = Readable(store);
        if (damage != nullptr) {
            *damage = store.GetDamage();
        }
    }
    const drenn::multi_track_recorder::Store again(disk, Workload::SmallStore());
    EXPECT_EQ(Readable(again), readable);
    return readable;
}
