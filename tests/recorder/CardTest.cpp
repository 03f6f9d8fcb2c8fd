// Cards that fill up, are pulled and come from elsewhere.

#include <cstring>
#include <iostream>

#include "recorder/RecorderFixture.h"
#include "support/Emulation.h"
#include "support/SmallCard.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

class RecorderCardTest : public RecorderTest {
protected:
    /// Why there is data or not, in the order of time.
    std::vector<std::string> ReasonsOf(const std::string& track, const std::string& from) const {
        std::vector<std::string> reasons;
        const json coverage = AskJson({"coverage", "--track", track, "--from", from});
        for (const json& interval : coverage[track]) {
            reasons.push_back(interval["reason"]);
        }
        return reasons;
    }
};

constexpr std::size_t kRecordBytes = 200000;

/// The numbers of the test source's records, which stand one behind the other.
std::vector<std::uint64_t> NumbersIn(const std::string& records) {
    EXPECT_EQ(records.size() % kRecordBytes, 0U);
    std::vector<std::uint64_t> numbers(records.size() / kRecordBytes);
    for (std::size_t i = 0; i != numbers.size(); ++i) {
        std::memcpy(&numbers[i], &records[i * kRecordBytes], sizeof numbers[i]);
    }
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
    return numbers;
}

// Made by version 1.3.0 from TestRecordSource on all tracks, 20 records of each. A change of the format adds a card of the
// version before it.
TEST_F(RecorderCardTest, ACardOfAnEarlierVersionIsReadAndContinued) {
    Program unpack("/usr/bin/env",
                   {"tar", "-xzf", CALVANE_SOURCE_DIR "/tests/recorder/data/card-of-1.3.0.tar.gz"},
                   folder.Path());
    ASSERT_EQ(unpack.Wait(), 0) << unpack.Err();
    StartAndWait(DescribeVideo("track = video\ncount = 1\n"));
    for (const char* const track : {"audio", "metadata"}) {
        EXPECT_EQ(CountRecords(track), 20U);
        ExpectRecordsAreRight(track);
    }
    EXPECT_TRUE(WaitUntil([&] { return CountRecords("video") == 21; }));
    const std::vector<std::string> reasons = ReasonsOf("video", "2026-11-22");
    EXPECT_GE(std::count(reasons.begin(), reasons.end(), "data"), 2);
    EXPECT_EQ(Stop(), 0);
    ExpectStoreIsGood();
}

TEST_F(RecorderCardTest, AFullCardGivesWayWhileItsOldestDataIsRead) {
    SKIP_WHEN_EMULATED("a card takes too long to fill");
    const SmallCard small(std::uint64_t{64} << 20U, 0);
    if (!small.Why().empty()) {
        GTEST_SKIP() << "there is no small card to be had: " << small.Why();
    }
    card = small.Path();
    StartAndWait(
        DescribeVideo("track = video\nbytes.min = " + std::to_string(kRecordBytes) + "\nrate.millihz = 0\n"));
    ASSERT_TRUE(WaitUntil([&] { return small.Percent() > 50; }));
    // One sleeps on what is going to be erased, others read all the time.
    Program sleeper("/usr/bin/env",
                    {"bash", "-c",
                     "set -o pipefail; " CALVANE_BIN_DIR "/calvane-recording read --track video | "
                     "{ head -c 1; touch asleep; until [ -e awake ]; do sleep 0.1; done; cat; }"},
                    folder.Path());
    ASSERT_TRUE(WaitUntil([&] { return folder.Has("asleep"); }));
    const json before = AskJson({"summary"});
    double highest = 0;
    json now;
    std::vector<std::string> reasons;
    ASSERT_TRUE(WaitUntil([&] {
        const Answer reader = Ask({"read", "--track", "video"});
        NumbersIn(reader.out);
        if (reader.status != 0) {
            EXPECT_THAT(reader.err, HasSubstr("was erased while it was read"));
            EXPECT_THAT(reader.err, Not(HasSubstr("1970-")));
        }
        highest = std::max(highest, small.Percent());
        now = AskJson({"summary"});
        reasons = ReasonsOf("video", before["first"]);
        return now["first"] > before["last"] &&
               reasons.front() == "card full"; // All of it has been replaced.
    }));
    folder.Write("awake", "");
    EXPECT_EQ(sleeper.Wait(), 1);
    EXPECT_THAT(sleeper.Err(), HasSubstr("was erased while it was read"));
    EXPECT_GE(NumbersIn(sleeper.Out()).size(), 1U);
    ASSERT_TRUE(WaitUntil([&] { return AskJson({"summary"})["last"] > now["last"]; }));
    EXPECT_EQ(reasons.back(), "data");
    EXPECT_TRUE(WaitUntil([&] { return small.Percent() <= 98; }));
    EXPECT_EQ(Stop(), 0);
    EXPECT_THAT(recorder->Err(), Not(HasSubstr("was not recorded")));
    std::cout << "at most " << highest << " percent of the card were used\n";
    EXPECT_GE(highest, 60); // For a moment it may be nearly all, where others keep the keeper from its work.
    ExpectStoreIsGood();
}

TEST_F(RecorderCardTest, ACardThatTakesNoMoreDataIsToldOfAndCanBeRead) {
    SmallCard small(std::uint64_t{64} << 20U, 0);
    if (!small.Why().empty()) {
        GTEST_SKIP() << "there is no small card to be had: " << small.Why();
    }
    card = small.Path();
    StartAndWait(kDescription);
    ASSERT_TRUE(WaitUntil([&] { return CountRecords("audio") > 50; }));
    Program properties("/usr/bin/gdbus",
                       {"monitor", "--address", bus.Address(), "-d", "com.drenn.recording_control"},
                       folder.Path());
    ASSERT_TRUE(WaitUntil([&] { return properties.Out().find("is owned by") != std::string::npos; }));
    small.MakeReadOnly();
    ASSERT_TRUE(WaitUntil([&] { return AskJson({"status"})["state"] == "read-only"; }));
    const json status = AskJson({"status"});
    EXPECT_THAT(status["problem"], HasSubstr("the card takes no data"));
    EXPECT_TRUE(WaitUntil([&] {
        return properties.Out().find("'Problem': <'the card takes no data") != std::string::npos &&
               properties.Out().find("'State': <'read-only'>") != std::string::npos;
    }));
    EXPECT_GT(CountRecords("audio"), 50U);
    properties.Signal(SIGTERM);
    EXPECT_EQ(Stop(), 0);
}

TEST_F(RecorderCardTest, ACardThatIsPulledAndPutBackLeavesAGapThatSaysSo) {
    SmallCard small(std::uint64_t{64} << 20U, 0);
    if (!small.Why().empty()) {
        GTEST_SKIP() << "there is no small card to be had: " << small.Why();
    }
    card = small.Path();
    StartAndWait(kDescription);
    ASSERT_TRUE(WaitUntil([&] { return CountRecords("audio") > 50; }));
    const std::string first = AskJson({"tracks"})["audio"]["first"];
    Program stream("calvane-recording", {"read", "--track", "video"}, folder.Path());
    small.Pull();
    ASSERT_TRUE(WaitUntil([&] { return recorder->Err().find("The card is away") != std::string::npos; }));
    stream.Wait();
    EXPECT_THAT(Ask({"coverage"}).err, HasSubstr("is away"));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    small.Mount();
    ASSERT_TRUE(WaitUntil([&] { return recorder->Err().find("The card is back") != std::string::npos; }));
    ASSERT_TRUE(WaitUntil([&] { return AskJson({"state"})["audio"] == true; }));
    std::this_thread::sleep_for(std::chrono::seconds(2)); // The history is written.
    EXPECT_EQ(Stop(), 0);
    StartAndWait();
    EXPECT_THAT(ReasonsOf("audio", first), ElementsAre("data", "no card", "data", "stopped"));
    EXPECT_EQ(Stop(), 0);
    ExpectStoreIsGood();
}

} // namespace
