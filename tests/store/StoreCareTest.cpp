// The store when its device, its files or its room fail it, and what looks after it.

#include <gmock/gmock.h>

#include "support/TestStore.h"
#include "support/ThrownText.h"

using namespace drenn::multi_track_recorder;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

std::vector<std::filesystem::path> Segments(const TestStore& test) {
    std::vector<std::filesystem::path> segments;
    for (const auto& entry : std::filesystem::directory_iterator(test.options.storage)) {
        if (entry.path().extension() == ".seg") {
            segments.push_back(entry.path());
        }
    }
    std::sort(segments.begin(), segments.end());
    return segments;
}

TEST(StoreCare, AFullCardGivesUpTheOldestBulkDataFirst) {
    TestStore test;
    auto bulk = test.NewTrack();
    auto sparse = test.NewTrack(TestStore::TrackClass::Sparse);
    AppendText(*sparse, "history");
    for (unsigned i = 100; i < 160; ++i) {
        AppendText(*bulk, std::to_string(i) + std::string(5000, '.'));
        test.store->Sync();
    }
    ASSERT_GT(Segments(test).size(), 4U);
    test.options.maxPercent = 1; // Whatever there is on this machine is more.
    test.Open();
    bulk = test.GetTrack(0);
    sparse = test.GetTrack(1);
    std::vector<std::string> given;
    for (const auto& track : {bulk, sparse}) {
        track->connectToEraseRangeSignal([&given, &track = *track](unsigned first, unsigned last) {
            EXPECT_EQ(first, 0U);
            given.push_back(TextAt(track, 0).substr(0, 3) + "-" + TextAt(track, last - 1).substr(0, 3));
        });
    }
    AppendText(*bulk, "160"); // Of a segment that is being written.
    test.store->Keep();
    EXPECT_THAT(given, ElementsAre("100-110", "111-121", "122-132", "133-143", "144-154", "155-159",
                                   "160-160", "his-his"));
    EXPECT_EQ(bulk->size(), 0U);
    EXPECT_EQ(test.GetTrack(1)->size(), 0U);
    EXPECT_EQ(Segments(test).size(), 0U);
    AppendText(*bulk, "goes on");
    EXPECT_EQ(TextAt(*bulk, 0), "goes on");
    EXPECT_THAT(test.Verify(), IsEmpty());
}

TEST(StoreCare, ACardThatGoesAndComesBack) {
    TestStore test;
    auto track = test.NewTrack();
    AppendText(*track, "durable");
    test.store->Sync();
    AppendText(*track, "in memory");
    std::vector<StoreState> states;
    test.store->ConnectToStateSignal([&](StoreState state) { states.push_back(state); });
    const auto rename = [&](const std::string& from, const std::string& to) {
        for (const char* name : {"data", "database"}) {
            std::filesystem::rename(test.folder.Path(from + name), test.folder.Path(to + name));
        }
    };
    const auto move = [&](const char* from, const char* to) {
        rename(from, to);
        test.store->Keep();
    };
    for (const char* name : {"data", "database"}) {
        std::filesystem::copy(test.folder.Path(name), test.folder.Path(std::string("earlier-") + name));
    }
    move("", "away-");
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { TextAt(*track, 0); }), HasSubstr("is away"));
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { AppendText(*track, "x"); }), HasSubstr("is away"));
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { test.store->Sync(); }), HasSubstr("is away"));
    const auto expectNothingOpen = [&] {
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            EXPECT_THAT(std::filesystem::read_symlink(entry, gone).string(),
                        Not(HasSubstr(test.folder.Path())));
        }
    };
    expectNothingOpen();
    TestStore other;
    other.store = nullptr;
    std::filesystem::rename(other.options.storage, test.options.storage);
    std::filesystem::rename(other.options.database, test.options.database);
    test.store->Keep();
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { TextAt(*track, 0); }), HasSubstr("Another card"));
    move("", "other-");
    move("away-", "");
    EXPECT_THAT(states,
                ElementsAre(StoreState::NoCard, StoreState::OtherCard, StoreState::NoCard, StoreState::Good));
    AppendText(*track, "after");
    test.store->Sync();
    EXPECT_EQ(TextAt(*track, 0) + ", " + TextAt(*track, 1) + ", " + TextAt(*track, 2),
              "durable, in memory, after");
    rename("", "away-");
    move("other-", ""); // At once in its place.
    EXPECT_EQ(test.store->GetState(), StoreState::OtherCard);
    expectNothingOpen(); // A segment was read that is not written any more.
    rename("", "other-");
    move("away-", "");
    AppendText(*track, "in memory again");
    test.store->Commit(); // It is found on the card, and not taken twice.
    move("", "away-");
    move("away-", "");
    ASSERT_EQ(track->size(), 4U);
    AppendText(*track, "that does not fit");
    move("", "away-");
    move("earlier-", ""); // As it was before: what is in memory is not its continuation.
    ASSERT_EQ(test.store->GetState(), StoreState::Good);
    ASSERT_EQ(track->size(), 1U);
    EXPECT_THAT(test.Verify(), IsEmpty());
}

} // namespace
