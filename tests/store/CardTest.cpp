#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "support/TestStore.h"

using namespace drenn::multi_track_recorder;
using testing::IsEmpty;

namespace {

constexpr std::uint64_t kCardBytes = std::uint64_t{64} << 20U;
constexpr unsigned int kFillings = 100;
constexpr std::chrono::seconds kLongest(25);

/// A small ext4 on a loop device.
class Card {
public:
    Card() {
        const std::string image = folder_.Write("image", "");
        std::filesystem::resize_file(image, kCardBytes);
        std::filesystem::create_directory(Path());
        Run("mkfs.ext4 -q -F -m 1 " + image);
        if (why_.empty()) {
            Run("mount -o loop " + image + " " + Path());
            isMounted_ = why_.empty();
        }
    }
    ~Card() {
        if (isMounted_) {
            umount2(Path().c_str(), MNT_DETACH);
        }
    }
    Card(const Card&) = delete;
    Card& operator=(const Card&) = delete;

    std::string Path() const { return folder_.Path("mounted"); }
    /// Why there is none; empty when there is one.
    const std::string& Why() const { return why_; }
    /// The share that is used, as a writer without root's reserve sees it.
    double Percent() const {
        struct statvfs figures {};
        if (statvfs(Path().c_str(), &figures) != 0) {
            throw std::runtime_error("cannot look at " + Path());
        }
        const auto used = static_cast<double>(figures.f_blocks - figures.f_bfree);
        return 100 * used / (used + static_cast<double>(figures.f_bavail));
    }

private:
    void Run(const std::string& command) {
        const std::string out = folder_.Path("out");
        if (std::system((command + " >" + out + " 2>&1").c_str()) != 0) { // NOLINT: a test's own words.
            why_ = "\"" + command + "\" fails: " + folder_.Read("out");
        }
    }

    TempFolder folder_;
    std::string why_;
    bool isMounted_ = false;
};

} // namespace

// Everything is real here: file system, threads, clock.
TEST(Card, StaysBelowItsLimitHoweverOftenItIsFilled) {
    const Card card;
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
