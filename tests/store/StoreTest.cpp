#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "support/TestStore.h"
#include "support/ThrownText.h"

using namespace drenn::multi_track_recorder;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

std::string Info(const Track& track) {
    std::string info;
    track.getInfo(info);
    return info;
}

void AppendNumbers(Track& track, unsigned first, unsigned end) {
    for (unsigned i = first; i < end; ++i) {
        AppendText(track, std::to_string(i));
    }
}

std::string AllTexts(Track& track) {
    std::string texts;
    for (unsigned i = 0; i < track.size(); ++i) {
        texts += (i == 0 ? "" : " ") + TextAt(track, i);
    }
    return texts;
}

TEST(Store, RecordsReadTheSameInMemoryAndOnTheDevice) {
    TestStore test;
    auto track = test.NewTrack();
    track->setFormat({"video", 7});
    const std::string header = "sixteen bytes...";
    const std::string large(200 * 1024, 'x'); // More than a segment.
    BlobRecord two;
    two.add({header.data(), header.size()});
    two.add({large.data(), large.size()});
    const auto check = [&](const std::string& when) {
        SCOPED_TRACE(when);
        EXPECT_EQ(track->size(), 4U);
        EXPECT_THAT(BlobsAt(*track, 0), ElementsAre(header, large));
        EXPECT_THAT(BlobsAt(*track, 0, 1), ElementsAre(header));
        EXPECT_THAT(BlobsAt(*track, 1), IsEmpty());
        EXPECT_THAT(BlobsAt(*track, 2), ElementsAre("", "a", "", "bc"));
        EXPECT_THAT(BlobsAt(*track, 2, 2), ElementsAre("", "a"));
        EXPECT_THAT(BlobsAt(*track, 3, 1), ElementsAre("a first blob that is longer than the entry keeps"));
        EXPECT_EQ(track->tellg(), 4U);
        BlobRecord record;
        EXPECT_THROW(*track >> record, std::out_of_range);
        EXPECT_EQ(track->tellg(), 4U);
    };
    *track << two << BlobRecord();
    BlobRecord many;
    for (const char* text : {"", "a", "", "bc"}) {
        many.add({text, strlen(text)});
    }
    *track << many;
    AppendText(*track, "a first blob that is longer than the entry keeps");
    check("in memory");
    test.store->Commit();
    check("written");
    test.store->Sync();
    check("synced");
    test.Open();
    track = test.GetTrack();
    check("opened again");
    EXPECT_EQ(track->getFormat(), DataFormatVersion("video", 7));
    EXPECT_THAT(test.Verify(), IsEmpty());
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { track->size(); }), HasSubstr("its store was closed"));
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { AppendText(*track, "x"); }),
                HasSubstr("its store was closed"));
}

TEST(Store, WhatIsTooLargeIsRefusedAndChangesNothing) {
    TestStore test;
    auto track = test.NewTrack();
    const std::string most(Track::kMaxRecordBytes, 'm');
    AppendText(*track, most);
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { AppendText(*track, most + "m"); }),
                HasSubstr("67108865"));
    BlobRecord many;
    for (unsigned i = 0; i <= Track::kMaxRecordBlobs; ++i) {
        many.add({});
    }
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { *track << many; }), HasSubstr("65537 blobs"));
    const std::string info(Track::kMaxInfoBytes, 'i');
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { track->setInfo(info + "i"); }), HasSubstr("1048577"));
    track->setInfo(info);
    AppendText(*track, "last");
    test.Open();
    track = test.GetTrack();
    EXPECT_EQ(track->size(), 2U);
    EXPECT_EQ(TextAt(*track, 0), most);
    track->seekg(1);
    EXPECT_EQ(Info(*track), info);
    EXPECT_THAT(test.Verify(), IsEmpty());
}

TEST(Store, AnInfoHoldsForTheRecordsThatFollowIt) {
    TestStore test;
    auto track = test.NewTrack();
    AppendNumbers(*track, 0, 3);
    track->setInfo(std::string("overwritten"));
    track->setInfo(std::string("A"));
    AppendNumbers(*track, 3, 5);
    test.store->Commit();
    track->setInfo(std::string("A"));
    AppendNumbers(*track, 5, 6);
    track->setInfo(std::string("B"));
    AppendNumbers(*track, 6, 9);
    const auto at = [&](unsigned index) {
        track->seekg(index);
        const auto range = track->getInfoRange();
        return Info(*track) + " " + std::to_string(range.first) + "-" + std::to_string(range.second);
    };
    const auto check = [&] {
        EXPECT_EQ(at(0), " 0-2");
        EXPECT_EQ(at(4), "A 3-5");
        EXPECT_EQ(at(8), "B 6-8");
        EXPECT_THROW(at(9), std::out_of_range);
    };
    check();
    test.Open();
    track = test.GetTrack();
    check();
    track->eraseRange(1, 5); // 0 5 6 7 8
    EXPECT_EQ(at(0), " 0-0");
    EXPECT_EQ(at(1), "A 1-1");
    track->eraseRange(0, 3); // 7 8
    EXPECT_EQ(at(0), "B 0-1");
    track->eraseRange(0, 2);
    AppendText(*track, "9");
    EXPECT_EQ(at(0), "B 0-0");
    test.Open();
    track = test.GetTrack();
    EXPECT_EQ(at(0), "B 0-0");
    EXPECT_THAT(test.Verify(), IsEmpty());
}

TEST(Store, ErasedRangesCloseUpAndCanStillBeReadWhileTheSignalIsRaised) {
    TestStore test(4096 + 600); // A segment has a handful of records.
    auto track = test.NewTrack();
    std::vector<std::string> signals;
    const auto connect = [&] {
        track->connectToEraseRangeSignal([&](unsigned first, unsigned last) {
            signals.push_back(TextAt(*track, first) + " to " + TextAt(*track, last - 1));
            throw std::runtime_error("a slot that fails");
        });
    };
    connect();
    for (unsigned i = 0; i < 20; ++i) {
        AppendText(*track, std::to_string(i));
        if (i % 4 == 3) {
            test.store->Sync();
        }
    }
    track->eraseRange(5, 8);   // Middle.
    track->eraseRange(15, 99); // Suffix, cut to the size.
    track->eraseRange(3, 3);
    track->eraseRange(40, 50);
    AppendNumbers(*track, 20, 22);
    track->eraseRange(0, 2); // Prefix, and records that are only in memory below.
    track->eraseRange(10, 14);
    EXPECT_THAT(signals, ElementsAre("5 to 7", "18 to 19", "0 to 1", "15 to 20"));
    const std::string left = "2 3 4 8 9 10 11 12 13 14 21";
    EXPECT_EQ(AllTexts(*track), left);
    test.Open();
    track = test.GetTrack();
    connect();
    EXPECT_EQ(AllTexts(*track), left);
    track->eraseRange(0, track->size());
    EXPECT_EQ(track->size(), 0U);
    test.store->Keep();
    EXPECT_EQ(std::filesystem::directory_iterator(test.folder.Path("data")) !=
                  std::filesystem::directory_iterator(),
              true);
    AppendText(*track, "22");
    test.Open();
    EXPECT_EQ(AllTexts(*test.GetTrack()), "22");
    EXPECT_THAT(test.Verify(), IsEmpty());
}

TEST(Store, TracksAndRecordingsComeAndGoAndStayThemselves) {
    TestStore test;
    const auto foreign = test.store->NewRecording();
    foreign->setInfo(std::string("M,1"));
    AppendText(*foreign->newTrack(), "foreign");
    auto own = test.store->NewRecording();
    own->setInfo(std::string("M,2"));
    auto gone = own->newTrack();
    auto history = own->newTrack(TrackClass::Sparse);
    AppendText(*gone, "gone");
    AppendText(*history, "history");
    test.store->Sync();
    const unsigned id = gone->getId();
    unsigned raised = 0;
    gone->connectToEraseRangeSignal([&](unsigned, unsigned last) { raised = last; });
    own->eraseTrack(id);
    EXPECT_EQ(raised, 1U);
    EXPECT_THROW(own->eraseTrack(id), std::out_of_range);
    EXPECT_THAT(ThrownText<std::runtime_error>([&] { AppendText(*gone, "more"); }), HasSubstr("was erased"));
    test.Open();
    ASSERT_EQ(test.store->GetRecordings().size(), 2U);
    std::string info;
    test.store->GetRecordings().front().lock()->getInfo(info);
    EXPECT_EQ(info, "M,1");
    EXPECT_EQ(TextAt(*test.GetTrack(), 0), "foreign");
    own = test.store->GetRecordings().back().lock();
    ASSERT_EQ(own->getTracks().size(), 1U);
    EXPECT_EQ(TextAt(*own->getTracks().front().lock(), 0), "history");
    EXPECT_GT(own->newTrack()->getId(), history->getId());
    EXPECT_THAT(test.Verify(), IsEmpty());
}

TEST(Store, OnlyOneProcessHasItOpen) {
    TestStore test;
    const std::string text = ThrownText<std::runtime_error>([&] { Store(PosixFileSystem(), test.options); });
    EXPECT_THAT(text, HasSubstr("open in another process"));
    EXPECT_THAT(text, HasSubstr(test.options.database));
}

TEST(Store, WhatAKilledProcessWroteIsThereAndWhatItHadInMemoryIsNot) {
    TestStore test;
    auto track = test.NewTrack();
    AppendNumbers(*track, 0, 3);
    track->setInfo(std::string("info"));
    test.store->Commit();
    AppendNumbers(*track, 3, 5);
    // The files as a kill leaves them, beside a store that is still open.
    const TempFolder left;
    std::filesystem::copy(test.folder.Path(), left.Path(), std::filesystem::copy_options::recursive);
    StoreOptions options = test.options;
    options.storage = left.Path("data");
    options.database = left.Path("database");
    EXPECT_THAT(VerifyStore(PosixFileSystem(), options.storage, options.database), IsEmpty());
    {
        Store killed(PosixFileSystem(), options);
        const auto recovered = killed.GetRecordings().front().lock()->getTracks().front().lock();
        EXPECT_EQ(AllTexts(*recovered), "0 1 2");
        AppendText(*recovered, "new");
        EXPECT_EQ(AllTexts(*recovered), "0 1 2 new");
        recovered->seekg(3);
        EXPECT_EQ(Info(*recovered), "info");
    }
    EXPECT_THAT(VerifyStore(PosixFileSystem(), options.storage, options.database), IsEmpty());
}

TEST(Store, ManyReadWhileOneAppends) {
    TestStore test;
    test.options.background = true;
    test.options.commitMs = 1;
    test.options.syncMs = 2;
    test.Open();
    const auto track = test.NewTrack();
    const auto other = test.NewTrack();
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (unsigned reader = 0; reader < 3; ++reader) {
        readers.emplace_back([&, reader] {
            for (unsigned i = 0; !done; i += 7 + reader) {
                track->lock();
                if (const unsigned size = track->size()) {
                    EXPECT_EQ(TextAt(*track, i % size), std::to_string(i % size));
                }
                track->unlock();
            }
        });
    }
    std::thread eraser([&] {
        for (unsigned i = 0; !done; ++i) {
            AppendText(*other, std::string(1000, 'o'));
            if (other->size() > 50) {
                other->eraseRange(i % 10, 40);
            }
        }
    });
    AppendNumbers(*track, 0, 3000);
    done = true;
    eraser.join();
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(track->size(), 3000U);
    EXPECT_THAT(test.Verify(), IsEmpty());
}

} // namespace
