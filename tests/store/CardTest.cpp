#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>

#include "support/SmallCard.h"
#include "support/TestStore.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;

namespace {

constexpr std::uint64_t kCardBytes = std::uint64_t{64} << 20U;
constexpr unsigned int kFillings = 100;
constexpr std::chrono::seconds kLongest(25);

} // namespace

// Everything is real here: file system, threads, clock.
TEST(Card, StaysBelowItsLimitHoweverOftenItIsFilled) {
    const SmallCard card(kCardBytes, 1);
    if (!card.Why().empty()) {
        GTEST_SKIP() << "there is no small card to be had: " << card.Why();
    }
    StoreOptions options;
    options.storage = card.Path() + "/data";
    options.database = card.Path() + "/database";
    options.maxPercent = 80;
    options.segmentBytes = 2U << 20U;
    double highest = 0;
    std::uint64_t written = 0;
    {
        Store store(PosixFileSystem(), options);
        const auto recording = store.NewRecording();
        const auto video = recording->newTrack();
        const auto history = recording->newTrack(TrackClass::Sparse);
        const std::string frame(100000, 'f');
        const auto end = std::chrono::steady_clock::now() + kLongest;
        for (unsigned int i = 0; written < kFillings * kCardBytes && std::chrono::steady_clock::now() < end;
             ++i) {
            AppendText(*video, std::to_string(i) + frame);
            written += frame.size();
            if (i % 100 == 0) {
                AppendText(*history, std::to_string(i));
            }
            if (i % 8 == 0) {
                highest = std::max(highest, card.Percent());
            }
        }
        store.Sync();
        highest = std::max(highest, card.Percent());
        EXPECT_EQ(StoreState::Good, store.GetState());
        EXPECT_EQ("0", TextAt(*history, 0)); // Bulk data gave way, and it alone.
        const unsigned int last = video->size() - 1;
        EXPECT_EQ(std::to_string(written / frame.size() - 1) + frame, TextAt(*video, last));
    }
    std::cout << "the card was filled " << written / kCardBytes << " times; at most " << highest
              << " percent were used\n";
    EXPECT_GE(written, 2 * kCardBytes); // Where everything is slow, such as under emulation.
    EXPECT_LE(highest, options.maxPercent);
    EXPECT_GE(highest, options.maxPercent / 2); // The limit was what held it.
    EXPECT_THAT(VerifyStore(PosixFileSystem(), options.storage, options.database), IsEmpty());
}
