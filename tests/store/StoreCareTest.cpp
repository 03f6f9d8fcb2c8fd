// The store when its device, its files or its room fail it, and what looks after it.

#include <gmock/gmock.h>

#include <fstream>

#include "drenn/multi_track_recorder/StoreInspection.h"
#include "drenn/multi_track_recorder/internal/io/FileError.h"
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

/// Two tracks in several segments, with a hole, an info text and an erased track.
void Fill(TestStore& test) {
    auto bulk = test.NewTrack();
    auto sparse = test.NewTrack(TestStore::TrackClass::Sparse);
    auto gone = test.NewTrack();
    test.store->GetRecordings().front().lock()->setInfo(std::string("M,1"));
    bulk->setFormat({"0", 1});
    AppendText(*gone, "gone");
    for (unsigned i = 0; i < 60; ++i) {
        if (i == 30) {
            bulk->setInfo(std::string("from 30"));
        }
        AppendText(*bulk, std::to_string(i) + std::string(5000, '.'));
        if (i % 6 == 0) {
            AppendText(*sparse, std::to_string(i));
            test.store->Sync();
        }
    }
    test.store->GetRecordings().front().lock()->eraseTrack(gone->getId());
    bulk->eraseRange(20, 25);
    bulk->eraseRange(0, 2);
}

void CheckFilled(TestStore& test) {
    std::string info;
    test.store->GetRecordings().front().lock()->getInfo(info);
    EXPECT_EQ(info, "M,1");
    ASSERT_EQ(test.store->GetRecordings().front().lock()->getTracks().size(), 2U);
    auto bulk = test.GetTrack(0);
    EXPECT_EQ(bulk->getFormat(), DataFormatVersion("0", 1));
    ASSERT_EQ(bulk->size(), 53U);
    for (unsigned i = 0; i < 53; ++i) {
        const unsigned number = i < 18 ? i + 2 : i + 7;
        ASSERT_EQ(TextAt(*bulk, i), std::to_string(number) + std::string(5000, '.'));
    }
    bulk->seekg(52);
    bulk->getInfo(info);
    EXPECT_EQ(info, "from 30");
    EXPECT_EQ(bulk->getInfoRange(), std::make_pair(23U, 52U));
    EXPECT_EQ(test.GetTrack(1)->size(), 10U);
}

TEST(StoreCare, ALostCatalogueIsRebuiltWithoutWhatWasErased) {
    TestStore test;
    Fill(test);
    test.store = nullptr;
    const StoreInspection inspection(test.folder.Path());
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { inspection.Rebuild(); }), HasSubstr("is whole"));
    std::filesystem::remove_all(test.options.database);
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { test.Open(); }), HasSubstr("calvane-store rebuild"));
    std::filesystem::resize_file(test.options.database + "/catalogue", 0);
    EXPECT_THAT(inspection.Rebuild(), IsEmpty());
    EXPECT_THAT(inspection.Verify().wrong, IsEmpty());
    EXPECT_EQ(inspection.Describe().recordings.at(0).tracks.at(0).records, 53U);
    test.Open();
    CheckFilled(test);
    EXPECT_THAT(test.Verify(), IsEmpty());
}

TEST(StoreCare, ARebuiltCatalogueHasWhatLiesBehindDamage) {
    TestStore test;
    Fill(test);
    test.store = nullptr;
    const std::string path = Segments(test).at(1).string();
    const std::string name = "data/" + std::filesystem::path(path).filename().string();
    const std::string whole = test.folder.Read(name);
    const auto rebuild = [&](std::size_t damaged) {
        std::string bytes = whole;
        bytes[damaged] = static_cast<char>(~bytes[damaged]);
        test.folder.Write(name, bytes);
        std::filesystem::resize_file(test.options.database + "/catalogue", 0);
        return StoreInspection(test.folder.Path()).Rebuild();
    };
    // Of a payload: that one record is lost, by its number.
    EXPECT_THAT(rebuild(whole.find("....") + 1000),
                ElementsAre(testing::AllOf(HasSubstr(path), HasSubstr("is damaged")),
                            HasSubstr("records 7 to 7 of track 1 cannot be read")));
    EXPECT_THAT(StoreInspection(test.folder.Path()).Verify().wrong, IsEmpty());
    EXPECT_THAT(StoreInspection(test.folder.Path()).Verify().notes,
                testing::Contains(testing::AllOf(HasSubstr(path), HasSubstr("known"))));
    test.Open();
    ASSERT_EQ(test.GetTrack(0)->size(), 52U);
    EXPECT_EQ(TextAt(*test.GetTrack(0), 5), "8" + std::string(5000, '.'));
    test.store = nullptr;
    // Of a block's header: the block is lost, and no other.
    const std::size_t second = whole.find("CBLK", whole.find("CBLK") + 1);
    EXPECT_THAT(rebuild(second + 20),
                ElementsAre(testing::AllOf(HasSubstr(path), HasSubstr("cannot be read"))));
    test.Open();
    const auto bulk = test.GetTrack(0);
    EXPECT_LT(bulk->size(), 53U);
    EXPECT_GT(bulk->size(), 40U);
    EXPECT_EQ(TextAt(*bulk, bulk->size() - 1), "59" + std::string(5000, '.'));
}

TEST(StoreCare, DamageIsFoundAndNeverRead) {
    TestStore test;
    Fill(test);
    test.store = nullptr;
    const std::string path = Segments(test).at(1).string();
    std::string bytes = test.folder.Read("data/" + std::filesystem::path(path).filename().string());
    const std::size_t place = bytes.find("....") + 1000;
    bytes[place] = '!';
    std::ofstream(path, std::ios::binary) << bytes;
    EXPECT_THAT(test.Verify(), testing::Contains(HasSubstr("Invariant 4: " + path)));
    test.Open();
    auto bulk = test.GetTrack(0);
    unsigned bad = 0;
    for (unsigned i = 0; i < bulk->size(); ++i) {
        const std::string error =
            ThrownText<std::runtime_error>([&] { EXPECT_THAT(TextAt(*bulk, i), Not(HasSubstr("!"))); });
        bad += error.find(path + ": it fails its checksum") != std::string::npos ? 1U : 0U;
    }
    EXPECT_EQ(bad, 1U);
    test.store = nullptr;
    std::filesystem::remove(path);
    EXPECT_THAT(test.Verify(), testing::Contains("Invariant 2: " + path + " is missing"));
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
    test.store->Keep();
    EXPECT_THAT(given,
                ElementsAre("100-110", "111-121", "122-132", "133-143", "144-154", "155-159", "his-his"));
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
    const auto move = [&](const char* from, const char* to) {
        for (const char* name : {"data", "database"}) {
            std::filesystem::rename(test.folder.Path(std::string(from) + name),
                                    test.folder.Path(std::string(to) + name));
        }
        test.store->Keep();
    };
    move("", "away-");
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { TextAt(*track, 0); }), HasSubstr("is away"));
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { AppendText(*track, "x"); }), HasSubstr("is away"));
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { test.store->Sync(); }), HasSubstr("is away"));
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        EXPECT_THAT(std::filesystem::read_symlink(entry, gone).string(), Not(HasSubstr(test.folder.Path())));
    }
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
    test.Open();
    track = test.GetTrack();
    ASSERT_EQ(track->size(), 3U);
    EXPECT_EQ(TextAt(*track, 0) + ", " + TextAt(*track, 1) + ", " + TextAt(*track, 2),
              "durable, in memory, after");
    EXPECT_THAT(test.Verify(), IsEmpty());
}

} // namespace
