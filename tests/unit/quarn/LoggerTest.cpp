#include "quarn/core/Logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "quarn/core/LogCapture.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/Warning.h"

namespace quarn::core {
namespace {

template <typename Action>
std::string ErrorOf(Action action) {
    try {
        action();
    } catch (const osa::Exception& failure) {
        return failure.what();
    }
    return "no exception";
}

/// Gives target and levels back, and removes its files.
class LoggerTest : public testing::Test {
protected:
    ~LoggerTest() override {
        Logger::LogToStderr();
        Logger::SetLevels("");
        unlink(first_.c_str());
        unlink(second_.c_str());
    }

    static std::vector<std::string> ReadLines(const std::string& path) {
        std::vector<std::string> lines;
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    const std::string first_ = testing::TempDir() + "LoggerTest.1." + std::to_string(getpid());
    const std::string second_ = testing::TempDir() + "LoggerTest.2." + std::to_string(getpid());
};

TEST_F(LoggerTest, LevelsReachLoggersOfBeforeAndAfter) {
    Logger* const before = Logger::GetLogger("LevelsBefore");
    EXPECT_EQ(Logger::GetLogger("LevelsBefore"), before);
    EXPECT_EQ(before->GetLevel(), LogLevel::Warning);

    Logger::SetLevels("LevelsBefore=info , * = ERROR,LevelsAfter=off, a=b = Trace");
    EXPECT_EQ(before->GetLevel(), LogLevel::Information);
    EXPECT_EQ(Logger::GetLogger("LevelsAfter")->GetLevel(), LogLevel::Off);
    EXPECT_EQ(Logger::GetLogger("LevelsOther")->GetLevel(), LogLevel::Error);
    EXPECT_EQ(Logger::GetLogger("a=b")->GetLevel(), LogLevel::Trace);

    Logger::SetLevels("debug");
    EXPECT_EQ(before->GetLevel(), LogLevel::Debug);
    Logger::SetLevels("LevelsAfter=information");
    EXPECT_EQ(before->GetLevel(), LogLevel::Warning);
}

TEST_F(LoggerTest, BadLevelsAreNamedAndChangeNothing) {
    Logger::SetLevels("error");
    const struct {
        const char* spec;
        const char* piece;
    } cases[] = {{"trace,x=loud", "x=loud"}, {"x=", "x="}, {"=debug", "=debug"}, {"debug,", ""}, {"7", "7"}};
    for (const auto& [spec, piece] : cases) {
        EXPECT_EQ(
            ErrorOf([&spec = spec] { Logger::SetLevels(spec); }),
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

    const std::vector<std::string> lines = ReadLines(first_);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], "old");
    std::string line = lines[1];
    ASSERT_GT(line.size(), 26U);
    std::replace_if(
        line.begin(), line.begin() + 26, [](char c) { return c >= '0' && c <= '9'; }, '9');
    EXPECT_EQ(line, "9999-99-99 99:99:99.999999 info [" + std::to_string(gettid()) + "] {0}%v: {} {9} %n 5");
    EXPECT_NE(lines[2].find(" error ["), std::string::npos);
    EXPECT_TRUE(lines[2].substr(lines[2].find(": ")) == ": " + std::string(100000, 'e')) << lines[2].size();
}

TEST_F(LoggerTest, AFileThatFailsIsNamedAndNothingIsThrownLater) {
    Logger::LogToFile(first_);
    const std::string missing = first_ + ".folder/log";
    EXPECT_EQ(ErrorOf([&] { Logger::LogToFile(missing); }),
              "Cannot open log file " + missing + ": No such file or directory");
    Logger::GetLogger("x")->Warning("still here");
    EXPECT_EQ(ReadLines(first_).size(), 1U);

    Logger::LogToFile("/dev/full");
    testing::internal::CaptureStderr();
    Logger::GetLogger("x")->Warning("one");
    Logger::GetLogger("x")->Warning("two");
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(said, "Log lines are lost: Failed flush to file /dev/full: No space left on device\n");
}

std::string Filling(int thread, int line) {
    return std::string(static_cast<size_t>(line) * 5, static_cast<char>('a' + thread));
}

TEST_F(LoggerTest, LinesAreNeitherTornNorLostWhileTheTargetChanges) {
    constexpr int kThreads = 4;
    constexpr int kLines = 300;
    Logger::LogToFile(first_);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            for (int line = 0; line < kLines; ++line) {
                Logger::GetLogger("Writer")->Warning("%d:%d:%s.", thread, line,
                                                     Filling(thread, line).c_str());
            }
        });
    }
    for (int turn = 0; turn < 50; ++turn) {
        Logger::SetLevels(turn % 2 == 0 ? "debug" : "warning");
        Logger::LogToFile(turn % 2 == 0 ? second_ : first_);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    std::vector<std::string> lines = ReadLines(first_);
    const std::vector<std::string> others = ReadLines(second_);
    lines.insert(lines.end(), others.begin(), others.end());
    EXPECT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::set<std::string> seen;
    for (const std::string& line : lines) {
        int thread = 0;
        int number = 0;
        const std::string text = line.substr(std::min(line.find("Writer: "), line.size()));
        ASSERT_EQ(std::sscanf(text.c_str(), "Writer: %d:%d", &thread, &number), 2) << line;
        const std::string start = "Writer: " + std::to_string(thread) + ":" + std::to_string(number) + ":";
        EXPECT_EQ(text, start + Filling(thread, number) + ".");
        seen.insert(start);
    }
    EXPECT_EQ(seen.size(), lines.size());
}

TEST_F(LoggerTest, CaptureCollectsInsteadOfTheTargetAndGivesLevelsBack) {
    Logger::LogToFile(first_);
    Logger* const logger = Logger::GetLogger("Captured");
    {
        const LogCapture capture(LogLevel::Debug);
        logger->Trace("no");
        logger->Debug("yes %d", 1);
        Logger::SetLevels("off"); // Counts when the capture has gone.
        logger->Debug("yes 1");
        osa::Warn("100%s of the layer below");
        EXPECT_EQ(capture.Count("yes 1"), 2U);
        EXPECT_FALSE(capture.Contains("yes"));
        ASSERT_EQ(capture.GetLines().size(), 3U);
        const LogCapture::Line last = capture.GetLines().back();
        EXPECT_EQ(last.logger, "osa");
        EXPECT_EQ(last.level, LogLevel::Warning);
        EXPECT_EQ(last.text, "100%s of the layer below");
    }
    EXPECT_EQ(logger->GetLevel(), LogLevel::Off);
    EXPECT_TRUE(ReadLines(first_).empty());
}

TEST(LoggerDeathTest, ServesUntilTheProcessEnds) {
    testing::FLAGS_gtest_death_test_style = "threadsafe"; // A fresh process, where no logger exists yet.
    EXPECT_EXIT(
        {
            std::atexit([] { Logger::GetLogger("Late")->Error("behind the last static destructor"); });
            Logger::GetLogger("Late")->Debug("passed over");
            std::exit(0);
        },
        testing::ExitedWithCode(0), "error .* Late: behind the last static destructor\n$");
}

} // namespace
} // namespace quarn::core
