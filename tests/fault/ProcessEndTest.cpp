// How processes end, each a program of its own.

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <list>

#include "support/Emulation.h"
#include "support/Program.h"

using testing::IsEmpty;

namespace {

const std::string kHung = "calvane: Thread q failure\n\n";

/// Runs `host` `count` times at once, each a process of its own. What each but the sound ones came to: those
/// that ended with `status` and had `said` as their last words.
std::vector<std::string> Unsound(int count, int status, const std::string& said, const std::string& host,
                                 const std::vector<std::string>& arguments) {
    const TempFolder folder;
    std::list<Program> runs;
    for (int run = 0; run != (kEmulated ? 4 : count); ++run) {
        runs.emplace_back(CALVANE_TEST_BIN_DIR "/" + host, arguments, folder.Path());
    }
    std::vector<std::string> unsound;
    for (Program& run : runs) {
        const int ended = run.Wait();
        const std::string words = run.Err();
        const size_t length = std::min(words.size(), said.size());
        if (ended != status || words.substr(words.size() - length) != said) {
            unsound.push_back(std::to_string(ended) + ": " + words);
        }
    }
    return unsound;
}

} // namespace

TEST(Watchdog, EndsAHostWithAStaticManagerWithItsStatus) {
    EXPECT_THAT(Unsound(25, 255, kHung, "WatchdogHost", {"hung"}), IsEmpty());
}

// A queue that waits for buffers shows no sign of life, whatever it logs meanwhile.
TEST(Watchdog, TakesAQueueWithoutBuffersForHung) {
    EXPECT_THAT(Unsound(5, 255, kHung, "WatchdogHost", {"idle"}), IsEmpty());
}

TEST(Watchdog, FindsNothingWhereBuffersPass) {
    EXPECT_THAT(Unsound(1, 0, "", "WatchdogHost", {"lively"}), IsEmpty());
}

// The watchdog has something to say and nobody listens.
TEST(Watchdog, EndsAHostWhoseConsoleStalls) {
    EXPECT_THAT(Unsound(5, 255, "", "WatchdogHost", {"console"}), IsEmpty());
}

TEST(Sync, LetsAProcessEndWhileThreadsWait) {
    EXPECT_THAT(Unsound(25, 0, "", "SyncHost", {}), IsEmpty());
}

// More than a pipe holds, for a reader that is late.
TEST(Log, ReachesASlowReaderOfAProcessThatEnds) {
    const TempFolder folder;
    const std::string host = std::string(CALVANE_EMULATOR) + " " CALVANE_TEST_BIN_DIR "/LogHost";
    Program shell("/usr/bin/sh", {"-c", host + " 2>&1 | (sleep 0.3; wc -l)"}, folder.Path());
    EXPECT_EQ(0, shell.Wait());
    EXPECT_EQ(5000, std::atoi(shell.Out().c_str()));
}
