#include <gmock/gmock.h>

#include <algorithm>

#include "support/Effort.h"
#include "support/SmallCard.h"
#include "support/TestStore.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;

namespace {

constexpr std::uint64_t kCardBytes = std::uint64_t{64} << 20U;
constexpr unsigned int kFillings = 20;

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
        for (unsigned int i = 0; written < Effort(kFillings) * kCardBytes; ++i) {
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
    EXPECT_LE(highest, options.maxPercent);
    EXPECT_GE(highest, options.maxPercent / 2); // The limit was what held it.
    EXPECT_THAT(VerifyStore(PosixFileSystem(), options.storage, options.database), IsEmpty());
}

// A device that promises more than it has: the file system has room, and a sync finds that the device has none.
TEST(Card, ADeviceThatRunsOutOfRoomInASyncLosesNothingThatWasFlushed) {
    const TempFolder backing;
    std::filesystem::create_directory(backing.Path("thin"));
    const std::string mount = "mount -t tmpfs -o size=20m tmpfs " + backing.Path("thin") + " 2>/dev/null";
    if (std::system(mount.c_str()) != 0) { // NOLINT: a test's own words.
        GTEST_SKIP() << "there is no thin device to be had: mounting a tmpfs fails";
    }
    std::string why;
    {
        SmallCard card(kCardBytes, 0, backing.Path("thin"));
        why = card.Why();
        if (why.empty()) {
            StoreOptions options;
            options.storage = card.Path() + "/data";
            options.database = card.Path() + "/database";
            options.maxPercent = 98;
            options.segmentBytes = 2U << 20U;
            options.background = false;
            unsigned int flushed = 0;
            try {
                Store store(PosixFileSystem(), options);
                const auto track = store.NewRecording()->newTrack();
                for (unsigned int i = 0; i != 1200; ++i) {
                    AppendText(*track, std::to_string(i) + std::string(20000, '.'));
                    if (i % 10 == 9) {
                        store.Sync();
                        flushed = i + 1;
                    }
                }
                ADD_FAILURE() << "the device had room for everything";
            } catch (const std::runtime_error&) {
                EXPECT_GT(flushed, 100U); // It is told, and what was flushed before has to be there.
            }
            card.Pull();
            const std::string more = "mount -o remount,size=200m " + backing.Path("thin");
            ASSERT_EQ(std::system(more.c_str()), 0); // NOLINT: as above. The file system itself needs some.
            card.Mount();
            ASSERT_EQ(card.Why(), "");
            const Store store(PosixFileSystem(), options);
            const auto track = store.GetRecordings().front().lock()->getTracks().front().lock();
            ASSERT_GE(track->size(), flushed);
            for (unsigned int i = 0; i != flushed; ++i) {
                ASSERT_EQ(TextAt(*track, i), std::to_string(i) + std::string(20000, '.'));
            }
        }
    }
    umount2(backing.Path("thin").c_str(), MNT_DETACH);
    if (!why.empty()) {
        GTEST_SKIP() << "there is no thin device to be had: " << why;
    }
}
