// A whole small card, the catalogue and the segments together, with any bytes changed: opening, verifying, rebuilding and
// reading neither crash nor hang, nothing that is read was never written, and no segment with a record that can be read
// is removed. An input is a list of changes, eight bytes each: which file, where, and what is put or cut there.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Require.h"
#include "drenn/multi_track_recorder/internal/Store.h"
#include "drenn/multi_track_recorder/internal/recovery/SegmentScan.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreRebuilding.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "support/store/SimFileSystem.h"

namespace {

using namespace drenn::multi_track_recorder;

constexpr std::size_t kChangeBytes = 8;
constexpr unsigned int kRecords = 40;

StoreOptions Options() {
    StoreOptions options;
    options.storage = "/card/data";
    options.database = "/card/database";
    options.segmentBytes = 6000;
    options.background = false;
    return options;
}

std::string TextOf(unsigned int number) {
    return "record " + std::to_string(number) + std::string(number * 7 % 60, 'x');
}

/// Sealed segments and, where the store was not closed, one that is not and a log of the catalogue.
DiskImage MakeCard(bool isClosed) {
    SimFileSystem disk;
    DiskImage left;
    {
        Store store(disk, Options());
        const auto track = store.NewRecording()->newTrack();
        for (unsigned int i = 0; i != kRecords; ++i) {
            const std::string text = TextOf(i);
            BlobRecord record;
            record.add(Blob(text.data(), text.size()));
            *track << record;
            if (i % 4 == 3) {
                store.Sync();
            }
        }
        left = disk.GetImage();
    }
    return isClosed ? disk.GetImage() : left;
}

void Damage(DiskImage& card, const uint8_t* change) {
    auto file = card.names.begin();
    std::advance(file, change[0] % card.names.size());
    DiskImage::Bytes& bytes = card.Change(file->second);
    const std::size_t place = change[2] + change[3] * std::size_t{256} + change[4] * std::size_t{65536};
    if (bytes.empty()) {
        return;
    }
    switch (change[1] % 4) {
        case 0:
            bytes[place % bytes.size()] ^= change[5];
            break;
        case 1:
            bytes[place % bytes.size()] = change[5];
            break;
        case 2:
            bytes.resize(place % bytes.size());
            break;
        default:
            std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(place % bytes.size()), bytes.end(),
                      change[5]);
    }
}

template <typename Action>
void MayRefuse(const Action& action) {
    try {
        action();
    } catch (const std::runtime_error&) {
        // Whoever is told cannot be misled.
    }
}

void CheckContent(const Store& store, const std::set<std::string>& written) {
    for (const auto& weak : store.GetRecordings()) {
        for (const auto& track : weak.lock()->getTracks()) {
            for (unsigned int i = 0; i < std::min(track.lock()->size(), 2 * kRecords); ++i) {
                MayRefuse([&] {
                    BlobRecord record;
                    track.lock()->seekg(i);
                    *track.lock() >> record;
                    REQUIRE(record.blobs().size() == 1);
                    const Blob& blob = record.blobs()[0];
                    REQUIRE(written.count(std::string(blob.data(), blob.data() + blob.size())) != 0);
                });
            }
        }
    }
}

/// How many records of the card's segments can be read, by any name that a segment may have.
std::size_t CountReadable(SimFileSystem& disk) {
    std::size_t readable = 0;
    for (const std::string& name : disk.List("/card/data")) {
        const auto key = SegmentOf(name);
        if (!key) {
            continue;
        }
        const auto file = disk.Open("/card/data/" + name, OpenMode::Read);
        Bytes header(kSegmentHeaderBytes);
        file->Read(0, header.data(), header.size());
        const auto own = DecodeSegmentHeader(header.data(), header.size());
        const SegmentScan scan = ScanSegment(*file, name, own ? own->store : StoreId{}, *key);
        for (const ScannedBlock& block : scan.blocks) {
            for (const SerialRange& range : block.readable) {
                readable += static_cast<std::size_t>(range.end - range.first);
            }
        }
    }
    return readable;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const quarn::core::LogCapture log(quarn::core::LogLevel::Off);
    static const DiskImage cards[] = {MakeCard(false), MakeCard(true)};
    static const std::set<std::string> written = [] {
        std::set<std::string> texts;
        for (unsigned int i = 0; i != kRecords; ++i) {
            texts.insert(TextOf(i));
        }
        return texts;
    }();
    if (size < 1 + kChangeBytes) {
        return 0;
    }
    DiskImage card = cards[data[0] % 2];
    for (std::size_t at = 1; at + kChangeBytes <= std::min<std::size_t>(size, 1 + 16 * kChangeBytes);
         at += kChangeBytes) {
        Damage(card, data + at);
    }
    SimFileSystem disk(card);
    const std::size_t readable = CountReadable(disk);
    const auto look = [&] {
        MayRefuse([&] { ExamineStore(disk, "/card/data", "/card/database"); });
        MayRefuse([&] { CheckContent(Store(disk, Options()), written); });
        REQUIRE(CountReadable(disk) >= readable);
    };
    look();
    MayRefuse([&] { RebuildStore(disk, "/card/data", "/card/database"); });
    REQUIRE(CountReadable(disk) >= readable);
    look();
    return 0;
}
