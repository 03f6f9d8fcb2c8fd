// calvane_recorder_fill: makes a card as a recorder would leave it, with records that have next to no payload. The
// segments are as small as one asks for, so that a card of many segments does not take as much room.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>

#include "Input.h"
#include "calvane/recording/RecordHeader.h"
#include "calvane/recording/track_type.h"
#include "drenn/multi_track_recorder/internal/Store.h"

namespace {

using drenn::multi_track_recorder::BlobRecord;
using drenn::multi_track_recorder::DataFormatVersion;
using drenn::multi_track_recorder::Store;
using drenn::multi_track_recorder::StoreOptions;
using drenn::multi_track_recorder::Track;
using drenn::multi_track_recorder::TrackClass;
using quarn::calvane::RecordHeader;

/// Data begins and ends in turns.
struct Turns {
    std::uint32_t on = 9000; ///< Seconds with data; then, without.
    std::uint32_t off = 3600;
};
constexpr std::int64_t kJitter = 3000; ///< Microseconds.
// See calvane/recording/RecordHeader.h.
constexpr std::int64_t kTicksOf2020 = 212444640000000000;
constexpr std::int64_t kUnixOf2020 = 1577836800000000;

class Card {
public:
    Card(const StoreOptions& options, const std::string& device)
        : store_(drenn::multi_track_recorder::PosixFileSystem(), options) {
        const auto recording = store_.NewRecording();
        recording->setInfo(device);
        for (unsigned track = 0; track < Input::kTracks; ++track) {
            const bool isHistory = track == Input::kHistory;
            tracks_.push_back(recording->newTrack(isHistory ? TrackClass::Sparse : TrackClass::Bulk));
            tracks_.back()->setFormat(DataFormatVersion(isHistory ? "-1" : std::to_string(track), 1));
        }
    }

    void Append(unsigned track, std::int64_t time, const std::string& payload) {
        RecordHeader header;
        header.flags = track == Input::kHistory ? RecordHeader::kHistory : 0;
        header.ticks = time - kUnixOf2020 + kTicksOf2020;
        BlobRecord record;
        record.add({&header, sizeof header});
        record.add({payload.data(), payload.size()});
        *tracks_[track] << record;
    }
    /// The data of all tracks begins or ends.
    void Tell(std::int64_t time, bool present) {
        const std::string digit = present ? "1" : "0";
        const std::string ofRecording = "EventType\n0\nRecordingState\n" + digit + "\n";
        if (present) {
            Append(Input::kHistory, time, ofRecording);
        }
        for (unsigned track = 0; track < Input::kHistory; ++track) {
            Append(
                Input::kHistory, time,
                "EventType\n1\nTrackDataPresent\n" + digit + "\nTrackType\n" + std::to_string(track) + "\n");
        }
        if (!present) {
            Append(Input::kHistory, time, ofRecording);
        }
    }
    void Commit() { store_.Commit(); }
    void Sync() {
        store_.Sync();
        store_.Keep();
    }

private:
    Store store_;
    std::vector<boost::shared_ptr<Track>> tracks_;
};

void AppendSecond(Card& card, std::int64_t begin, std::mt19937& random) {
    for (unsigned track = 0; track < Input::kHistory; ++track) {
        const std::int64_t step = 1000000 / Input::kPerSecond[track];
        for (std::uint32_t i = 0; i < Input::kPerSecond[track]; ++i) {
            card.Append(track, begin + i * step + static_cast<std::int64_t>(random() % kJitter), "payload.");
        }
    }
}

/// `seconds` with data, up to this minute; a commit for each `together` of them.
void Fill(Card& card, std::uint32_t seconds, std::uint32_t together, std::uint32_t commitsOfSync,
          const Turns& turns) {
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    std::int64_t time =
        now.count() - (std::int64_t{seconds} + std::int64_t{seconds / turns.on} * turns.off + 600) * 1000000;
    std::mt19937 random(5);
    card.Tell(time, true);
    for (std::uint32_t second = 1; second <= seconds; ++second) {
        AppendSecond(card, time, random);
        time += 1000000;
        if (second % turns.on == 0) {
            card.Tell(time, false);
            time += std::int64_t{turns.off} * 1000000;
            card.Tell(time, true);
        }
        if (second % (together * commitsOfSync) == 0) {
            card.Sync();
        } else if (second % together == 0) {
            card.Commit();
        }
    }
    card.Tell(time, false);
    card.Sync();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 7 && argc != 9) {
        std::fprintf(stderr,
                     "usage: calvane_recorder_fill CARD DEVICE SECONDS SEGMENT_BYTES SECONDS_OF_COMMIT "
                     "COMMITS_OF_SYNC [SECONDS_ON SECONDS_OFF]\n");
        return 2;
    }
    const auto number = [&](int place) {
        return static_cast<std::uint32_t>(std::strtoul(argv[place], nullptr, 10));
    };
    try {
        StoreOptions options;
        options.storage = std::string(argv[1]) + "/data";
        options.database = std::string(argv[1]) + "/database";
        options.background = false;
        options.segmentBytes = number(4);
        Card card(options, argv[2]);
        Fill(card, number(3), number(5), number(6), argc == 9 ? Turns{number(7), number(8)} : Turns{});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "calvane_recorder_fill: %s\n", error.what());
        return 1;
    }
    return 0;
}
