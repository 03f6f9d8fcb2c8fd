#include "quarn/core/Logger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <utility>

#include "quarn/core/LogCapture.h"
#include "quarn/osa/Warning.h"
#include "support/Emulation.h"
#include "support/RunInThreads.h"
#include "support/TempFolder.h"
#include "support/ThrownText.h"

namespace quarn::core {
namespace {

/// Gives target and levels back.
class LoggerTest : public testing::Test {
protected:
    ~LoggerTest() override {
        Logger::LogToStderr();
        Logger::SetLevels("");
    }

    static Texts ReadLines(const std::string& path) {
        std::ifstream file(path);
        Texts lines;
        for (std::string line; std::getline(file, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    const TempFolder folder_;
    const std::string first_ = folder_.Path("1");
    const std::string second_ = folder_.Path("2");
};

TEST_F(LoggerTest, LevelsReachLoggersOfBeforeAndAfter) {
    Logger* const before = Logger::GetLogger("LevelsBefore");
    EXPECT_EQ(Logger::GetLogger("LevelsBefore"), before);
    Logger::SetLevels("LevelsBefore=info , * = ERROR,a=b = Trace");
    EXPECT_EQ(before->GetLevel(), LogLevel::Information);
    EXPECT_EQ(Logger::GetLogger("a=b")->GetLevel(), LogLevel::Trace);
    Logger::SetLevels("LevelsAfter=off");
    EXPECT_EQ(before->GetLevel(), LogLevel::Warning);
}

TEST_F(LoggerTest, BadLevelsAreNamedAndChangeNothing) {
    Logger::SetLevels("error");
    for (const auto& [spec, piece] :
         {std::pair("trace,x=loud", "x=loud"), {"=debug", "=debug"}, {"debug,", ""}}) {
        EXPECT_EQ(
            ThrownText([spec = spec] { Logger::SetLevels(spec); }),
            "Invalid log level \"" + std::string(piece) +
                "\": want a level, or a logger's name, = and a level; the levels are off, error, warning, "
                "information (or info), debug and trace");
        EXPECT_EQ(Logger::GetLogger("x")->GetLevel(), LogLevel::Error);
    }
}

TEST_F(LoggerTest, WritesWhatPassesToTheFileAndTakesTextAsData) {
    std::ofstream(first_) << "old\n";
    Logger::LogToFile(first_);
    Logger::SetLevels("information");
    Logger* const logger = Logger::GetLogger("{0}%v");
    errno = EPERM;
    logger->Debug("passed over");
    logger->Information("%s%d", "{} {9} %n ", 5);
    logger->Log(LogLevel::Error, "%s", std::string(100000, 'e').c_str());
    EXPECT_EQ(errno, EPERM);

    const Texts lines = ReadLines(first_);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(std::regex_replace(lines[1].substr(0, 26), std::regex("[0-9]"), "9"),
              "9999-99-99 99:99:99.999999");
    EXPECT_EQ(lines[1].substr(26), " info [" + std::to_string(gettid()) + "] {0}%v: {} {9} %n 5");
    EXPECT_TRUE(lines[2].substr(lines[2].find(": ")) == ": " + std::string(100000, 'e')) << lines[2].size();
}

TEST_F(LoggerTest, AFileThatFailsIsNamedAndNothingIsThrownLater) {
    Logger::LogToFile(first_);
    EXPECT_EQ(ThrownText([] { Logger::LogToFile("/no/log"); }),
              "Cannot open log file /no/log: No such file or directory");
    Logger::GetLogger("x")->Warning("still here");
    EXPECT_EQ(ReadLines(first_).size(), 1U);

    Logger::LogToFile("/dev/full");
    testing::internal::CaptureStderr();
    errno = EPERM;
    Logger::GetLogger("x")->Warning("one");
    Logger::GetLogger("x")->Warning("two");
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Log lines are lost: Failed flush to file /dev/full: No space left on device\n");
}

TEST_F(LoggerTest, AFileThatWasRenamedIsReplacedAndTheJournalGetsPriorities) {
    Logger::LogToFile(first_);
    Logger::GetLogger("x")->Warning("old");
    std::filesystem::rename(first_, second_);
    Logger::ReopenFile();
    Logger::GetLogger("x")->Warning("new");
    EXPECT_EQ(ReadLines(first_).at(0).substr(26), " warning [" + std::to_string(gettid()) + "] x: new");
    EXPECT_EQ(ReadLines(second_).size(), 1U);

    testing::internal::CaptureStderr();
    struct stat stream {};
    ASSERT_EQ(fstat(STDERR_FILENO, &stream), 0);
    const std::string name = std::to_string(stream.st_dev) + ":" + std::to_string(stream.st_ino);
    for (const auto& [journal, priority] : {std::pair(name, "<3>"), {name + "1", "20"}}) {
        setenv("JOURNAL_STREAM", journal.c_str(), 1);
        Logger::LogToStderr();
        Logger::ReopenFile(); // There is none.
        Logger::GetLogger("x")->Error("%s", priority);
    }
    unsetenv("JOURNAL_STREAM");
    const std::string thread = "[" + std::to_string(gettid()) + "] x: ";
    const std::string lines = testing::internal::GetCapturedStderr();
    EXPECT_EQ(lines.substr(0, lines.find('\n') + 3), "<3>" + thread + "<3>\n20"); // Then the year.
}

TEST_F(LoggerTest, LinesAreNeitherTornNorLostWhileTheTargetChanges) {
    constexpr int kThreads = 4;
    constexpr int kLines = 300;
    const auto textOf = [](int thread, int line) {
        return std::to_string(thread) + ":" + std::string(static_cast<size_t>(line) * 5, 'x') + ".";
    };
    Logger::LogToFile(first_);
    std::multiset<std::string> expected;
    for (int i = 0; i != kThreads * kLines; ++i) {
        expected.insert(textOf(i / kLines, i % kLines));
    }
    RunInThreads(kThreads + 1, [&](int thread) {
        for (int turn = 0; thread == kThreads && turn < 50; ++turn) {
            Logger::SetLevels(turn % 2 == 0 ? "debug" : "warning");
            Logger::LogToFile(turn % 2 == 0 ? second_ : first_);
        }
        for (int line = 0; thread != kThreads && line < kLines; ++line) {
            Logger::GetLogger("Writer")->Warning("%s", textOf(thread, line).c_str());
        }
    });
    std::multiset<std::string> written;
    for (const std::string& path : {first_, second_}) {
        for (const std::string& line : ReadLines(path)) {
            written.insert(line.substr(line.find("Writer: ") + 8));
        }
    }
    EXPECT_TRUE(written == expected) << written.size() << " lines of " << expected.size();
}

// As long as nobody reads, and when somebody does after all.
TEST_F(LoggerTest, KeepsWhatStandardErrorDoesNotTakeAndCountsWhatIsTooMuch) {
    constexpr int kLines = 30000; // More than 1 MiB and a full pipe hold.
    const std::string padding(70, 'x');
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int standardError = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    for (int line = 0; line != kLines; ++line) {
        Logger::GetLogger("Chatty")->Error("%s%d.", padding.c_str(), line);
    }
    int last = -1;
    int received = 0;
    int lost = 0;
    int logged = kLines;
    std::FILE* const reader = fdopen(ends[0], "r");
    setvbuf(reader, nullptr, _IOFBF, 32768); // Makes much room at once.
    for (char line[200]; received + lost < logged && std::fgets(line, sizeof line, reader) != nullptr;) {
        int count = 0;
        if (std::sscanf(line, "Log lines are lost: standard error took %d of them too slowly\n", &count) ==
            1) {
            lost += count;
        } else {
            const char* const number = std::strstr(line, padding.c_str());
            ASSERT_NE(number, nullptr) << line;
            const int before = std::exchange(last, std::atoi(number + padding.size()));
            ASSERT_GT(last, before); // Those logged meanwhile overtake none.
            if (++received % 3 == 0 && logged != kLines + 300) {
                Logger::GetLogger("Chatty")->Error("%s%d.", padding.c_str(), logged++);
            }
        }
    }
    dup2(standardError, STDERR_FILENO);
    close(standardError);
    std::fclose(reader);
    EXPECT_EQ(received + lost, logged);
    EXPECT_GT(lost, 0);
    EXPECT_GT(received, 5000); // Most of 1 MiB.
}

TEST_F(LoggerTest, CaptureCollectsInsteadOfTheTargetAndGivesLevelsBack) {
    Logger::LogToFile(first_);
    Logger* const logger = Logger::GetLogger("Captured");
    {
        const LogCapture capture(LogLevel::Debug);
        logger->Trace("no");
        Logger::SetLevels("off"); // Counts when the capture has gone.
        logger->Debug("yes %d", 1);
        osa::Warn("100%s of the layer below");
        ASSERT_EQ(capture.GetLines().size(), 2U);
        const LogCapture::Line last = capture.GetLines().back();
        EXPECT_EQ(last.logger + ": " + last.text, "osa: 100%s of the layer below");
    }
    EXPECT_EQ(logger->GetLevel(), LogLevel::Off);
    EXPECT_TRUE(ReadLines(first_).empty());
}

TEST(LoggerDeathTest, ServesUntilTheProcessEnds) {
    SKIP_WHEN_EMULATED("a death test cannot start itself again");
    testing::FLAGS_gtest_death_test_style = "threadsafe"; // A fresh process, where no logger exists yet.
    EXPECT_EXIT(
        {
            std::atexit([] { Logger::GetLogger("Late")->Error("behind the last static destructor"); });
            std::exit(0);
        },
        testing::ExitedWithCode(0), "error .* Late: behind the last static destructor\n$");
}

} // namespace
} // namespace quarn::core
