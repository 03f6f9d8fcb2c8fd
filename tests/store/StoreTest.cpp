#include <gmock/gmock.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "drenn/multi_track_recorder/internal/io/FileError.h"
#include "support/TestStore.h"
#include "support/ThrownText.h"
#include "support/WaitUntil.h"

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

// Its text takes the place of the one before, which the catalogue has already.
TEST(Store, AnInfoWithoutRecordsIsReplacedThoughWhatFollowsIsErased) {
    TestStore test;
    test.NewTrack()->setInfo(std::string("never used"));
    test.Open();
    const auto track = test.GetTrack();
    track->setInfo(std::string("of what is erased"));
    AppendText(*track, "erased");
    track->setInfo(std::string("of what is kept"));
    AppendText(*track, "kept");
    test.store->Sync();
    track->eraseRange(0, 1);
    test.Open();
    EXPECT_EQ(Info(*test.GetTrack()), "of what is kept");
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

TEST(Store, TheOldestSegmentsOfAClassCanBeErased) {
    TestStore test;
    const auto video = test.NewTrack();
    const auto history = test.NewTrack(TrackClass::Sparse);
    AppendText(*history, "0");
    for (unsigned i = 0; i != 20; ++i) {
        AppendText(*video, std::to_string(i) + std::string(20000, ' '));
        test.store->Sync();
    }
    EXPECT_EQ(test.store->GetBytes(true), 0U); // It is being written.
    const std::uint64_t bytes = test.store->GetBytes(false);
    EXPECT_GT(bytes, 200000U);
    EXPECT_LE(bytes, 420000U);
    unsigned gone = 0;
    video->connectToEraseRangeSignal([&](unsigned first, unsigned last) {
        EXPECT_EQ(first, 0U);
        gone += last;
    });
    {
        const std::lock_guard<const Track> lock(*history);
        EXPECT_THROW(test.store->EraseOldest(false, 0), std::logic_error);
    }
    test.store->EraseOldest(true, 0);
    EXPECT_EQ(history->size(), 1U);
    test.store->EraseOldest(false, bytes);
    EXPECT_EQ(test.store->GetBytes(false), bytes);
    // However many find it too much, one segment goes.
    std::vector<std::thread> threads(4);
    for (auto& thread : threads) {
        thread = std::thread([&] { test.store->EraseOldest(false, bytes - 1); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_LT(test.store->GetBytes(false), bytes);
    EXPECT_GT(test.store->GetBytes(false), bytes - 80000U);
    EXPECT_GE(gone, 1U);
    EXPECT_LE(gone, 3U);
    test.store->EraseOldest(false, 0);
    EXPECT_EQ(test.store->GetBytes(false), 0U);
    EXPECT_GT(gone, 10U);
    ASSERT_GE(video->size(), 1U); // In the segment that is being written.
    EXPECT_EQ(std::stoul(TextAt(*video, 0)), gone);
    test.Open();
    EXPECT_EQ(std::stoul(TextAt(*test.GetTrack(0), 0)), gone);
    EXPECT_EQ(TextAt(*test.GetTrack(1), 0), "0");
    EXPECT_THAT(test.Verify(), IsEmpty());
}

TEST(Store, WhoGivesATrackBackLetsThroughWhoWaits) {
    TestStore test;
    const auto track = test.NewTrack();
    std::atomic<pid_t> waiting{0};
    track->lock();
    track->lock(); // Given back as often as it is taken.
    track->unlock();
    std::thread writer([&] {
        waiting = static_cast<pid_t>(syscall(SYS_gettid));
        AppendText(*track, "1");
    });
    const auto isAsleep = [&] {
        std::string text;
        std::getline(std::ifstream("/proc/self/task/" + std::to_string(waiting) + "/stat"), text);
        return waiting != 0 && text.find(") S ") != std::string::npos;
    };
    EXPECT_TRUE(WaitUntil(isAsleep));
    EXPECT_EQ(track->size(), 0U);
    track->unlock();
    track->lock();
    EXPECT_EQ(track->size(), 1U);
    track->unlock();
    writer.join();
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
