#include <gmock/gmock.h>

#include <algorithm>

#include "quarn/core/LogCapture.h"
#include "support/Effort.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;

namespace {

constexpr std::size_t kFlips = 8000;
constexpr unsigned int kRecords = 12;

const char* const kInfo = "Width\n640\n";

// A closed store with one track.
DiskImage MakeStore() {
    SimFileSystem disk;
    {
        Store store(disk, Workload::SmallStore());
        const auto recording = store.NewRecording();
        recording->setInfo<std::string>(kInfo);
        const auto track = recording->newTrack();
        track->setFormat({"0", 1});
        track->setInfo<std::string>(kInfo);
        for (unsigned int number = 0; number != kRecords; ++number) {
            BlobRecord record;
            for (auto& blob : TestRecord{0, number}.Blobs()) {
                record.add(Blob(std::move(blob)));
            }
            *track << record;
        }
    }
    return disk.GetImage();
}

/// Everything that can be read of a store, one text for each thing; what cannot be read is left out.
std::vector<std::string> ReadAll(DiskImage image) {
    std::vector<std::string> all;
    SimFileSystem disk(std::move(image));
    try {
        Store store(disk, Workload::SmallStore());
        const auto recording = store.GetRecordings().front().lock();
        const auto add = [&all](const auto& read) {
            try {
                all.push_back(read());
            } catch (const std::exception&) {
                // An error is no wrong byte.
            }
        };
        add([&] {
            std::string info;
            recording->getInfo(info);
            return "recording " + info;
        });
        const auto track = recording->getTracks().front().lock();
        add([&] {
            return "format " + track->getFormat().getName() + std::to_string(track->getFormat().getVersion());
        });
        for (unsigned int index = 0; index != std::min(track->size(), kRecords); ++index) {
            add([&] {
                std::string text = "record " + std::to_string(index);
                BlobRecord record;
                track->seekg(index);
                track->getInfo(text);
                *track >> record;
                for (const Blob& blob : record.blobs()) {
                    text += std::to_string(blob.size()) + ":" +
                            std::string(blob.data(), blob.data() + blob.size());
                }
                return text;
            });
        }
    } catch (const std::exception&) {
        // Nor is a store that cannot be opened.
    }
    return all;
}

} // namespace

TEST(BitFlip, NeverMakesTheStoreReturnAWrongByte) {
    const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    const DiskImage good = MakeStore();
    const std::vector<std::string> expected = ReadAll(good);
    ASSERT_EQ(2 + kRecords, expected.size());
    std::size_t flips = 0;
    for (const auto& [path, inode] : good.names) {
        if (path.find("/data/") == std::string::npos) {
            continue; // SQLite keeps no checksums of the catalogue.
        }
        const std::size_t bits = good.files.at(inode)->size() * 8;
        const std::size_t stride =
            (1 + bits / Effort(kFlips)) | 1U; // Odd: every place in a byte has its turn.
        for (std::size_t bit = 0; bit < bits && !HasFailure(); bit += stride, ++flips) {
            DiskImage bad = good;
            bad.Change(inode)[bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
            for (const std::string& read : ReadAll(bad)) {
                EXPECT_NE(expected.end(), std::find(expected.begin(), expected.end(), read))
                    << "bit " << bit << " of " << path << ": " << read;
            }
        }
    }
    EXPECT_GT(flips, 100U);
}
