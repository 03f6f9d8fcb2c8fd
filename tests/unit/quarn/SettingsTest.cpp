#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

#include "quarn/core/LogCapture.h"
#include "quarn/settings/QuarnSettingsClient.h"
#include "support/TempFolder.h"
#include "support/ThrownText.h"
#include "support/WaitUntil.h"

namespace {

using quarn::settings::QuarnSettingsClient;
using quarn::settings::Setting;
using quarn::settings::SettingTypeException;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr bool kSlowBuild = true;
#else
constexpr bool kSlowBuild = false;
#endif

class SettingsTest : public testing::Test {
protected:
    const TempFolder folder;
    const std::string path = folder.Path("sub/settings.db");
};

/// Another process, made before this one opens the database; it works when it is told to.
class Writer {
public:
    explicit Writer(const std::function<void()>& work) {
        EXPECT_EQ(pipe(gate_.data()), 0);
        child_ = fork();
        if (child_ == 0) {
            char byte = 0;
            close(gate_[1]);
            if (read(gate_[0], &byte, 1) == 1) {
                work();
            }
            _exit(0);
        }
        close(gate_[0]);
    }
    ~Writer() {
        close(gate_[1]);
        End();
    }
    void Go() const { EXPECT_EQ(write(gate_[1], "!", 1), 1); }
    void Kill() const { kill(child_, SIGKILL); }
    /// What waitpid says of it.
    int End() {
        int status = -1;
        if (child_ > 0) {
            waitpid(child_, &status, 0);
            child_ = -1;
        }
        return status;
    }

private:
    std::array<int, 2> gate_{};
    pid_t child_ = -1;
};

TEST_F(SettingsTest, AValueCountsBeforeADefaultWhateverTheOrder) {
    QuarnSettingsClient settings(path.c_str());
    EXPECT_EQ(settings.Get("a"), std::nullopt);
    settings.Set("a", 1);
    settings.SetDefault("a", 2);
    settings.SetDefault("b", std::string("default"));
    EXPECT_EQ(settings.GetInt("a"), 1);
    EXPECT_EQ(settings.GetString("b"), "default");
    settings.Set("b", std::string());
    EXPECT_EQ(settings.GetString("b"), "") << "an empty text is a value";
    settings.Set("c", std::int64_t{1} << 60);
    EXPECT_EQ(QuarnSettingsClient(path.c_str()).GetInt("c"), std::int64_t{1} << 60);
    EXPECT_EQ(ThrownText<SettingTypeException>([&] { settings.GetString("a"); }), "Setting a is not a text");
}

TEST_F(SettingsTest, ADamagedFileIsSetAsideAndOneThatIsGoneIsNoticed) {
    const std::string garbage(5000, 'x');
    std::filesystem::create_directory(folder.Path("sub"));
    folder.Write("sub/settings.db", garbage);
    const quarn::core::LogCapture capture;
    QuarnSettingsClient settings(path.c_str());
    settings.SetDefault("a", 1);
    EXPECT_EQ(folder.Read("sub/settings.db.damaged"), garbage);
    EXPECT_EQ(capture.Count("Cannot use the settings database " + path +
                            ": file is not a database; it is set aside as " + path +
                            ".damaged, and the settings begin with their defaults"),
              1U);
    std::atomic<std::int64_t> told{0};
    const int watch =
        settings.Subscribe("a", [&](const std::string& key) { told = settings.GetInt(key).value_or(-1); });
    settings.Set("a", 2);
    EXPECT_TRUE(WaitUntil([&] { return told == 2; }));
    std::fstream(path, std::ios::in | std::ios::out) << garbage << "y"; // While it is used.
    EXPECT_EQ(settings.GetInt("a"), 1);
    EXPECT_EQ(folder.Read("sub/settings.db.damaged-2").substr(0, garbage.size() + 1), garbage + "y");
    EXPECT_TRUE(WaitUntil([&] { return told == 1; }));
    settings.Set("a", 3);
    EXPECT_TRUE(WaitUntil([&] { return told == 3; }));
    std::filesystem::resize_file(path, 0);
    EXPECT_TRUE(WaitUntil([&] { return told == 1; }));
    settings.Set("a", 3);
    EXPECT_TRUE(WaitUntil([&] { return told == 3; }));
    std::filesystem::remove(path);
    EXPECT_TRUE(WaitUntil([&] { return told == 1; }));
    Writer writer([&] { QuarnSettingsClient(path.c_str()).Set("a", 4); });
    writer.Go();
    writer.End();
    EXPECT_EQ(settings.GetInt("a"), 4);
    EXPECT_TRUE(WaitUntil([&] { return told == 4; }));
    settings.Subscribe("other", [&](const std::string&) { told = 5; });
    settings.Unsubscribe(watch);
    settings.Set("a", 6);
    settings.Set("other", 1);
    EXPECT_TRUE(WaitUntil([&] { return told == 5; }));
    const std::string below = path + "/below.db";
    EXPECT_NE(ThrownText([&] { QuarnSettingsClient(below.c_str()).Get("a"); }).find(below),
              std::string::npos);
}

TEST_F(SettingsTest, AFolderThatComesWhileItIsMadeIsAsGood) {
    std::atomic<bool> isDone = false;
    std::thread other([&] {
        while (!isDone) {
            mkdir(folder.Path("sub").c_str(), 0755);
            rmdir(folder.Path("sub").c_str());
        }
    });
    for (int time = 0; time < 300; ++time) {
        // The folder may go again before the file is there.
        ThrownText([&] { QuarnSettingsClient(folder.Path("sub/./settings.db").c_str()).Get("a"); });
        std::filesystem::remove_all(folder.Path("sub"));
    }
    isDone = true;
    other.join();
    QuarnSettingsClient(folder.Path("sub/./settings.db").c_str()).Set("a", 1);
    EXPECT_EQ(QuarnSettingsClient(path.c_str()).GetInt("a"), 1);
}

TEST_F(SettingsTest, SettingsThatAreSetTogetherAreReadTogether) {
    QuarnSettingsClient settings(path.c_str());
    Writer writer([&] {
        QuarnSettingsClient other(folder.Path("sub/./settings.db").c_str()); // A connection of its own.
        for (std::int64_t value = 1; value <= 100; ++value) {
            other.Set({{"sec", value}, {"usec", value}});
            usleep(1000); // Or the reader would hardly get at the file.
        }
    });
    writer.Go();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    std::optional<Setting> last;
    do {
        ASSERT_LT(std::chrono::steady_clock::now(), end) << "the writer has gone";
        const auto both = settings.Get(std::vector<std::string>{"sec", "usec"});
        ASSERT_EQ(both[0], both[1]);
        last = both[0];
    } while (last != Setting(std::int64_t{100}));

    // One of them fails: none is set.
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    sqlite3_exec(database,
                 "CREATE TRIGGER refuse BEFORE INSERT ON settings WHEN NEW.key = 'usec' "
                 "BEGIN SELECT RAISE(ABORT, 'refused'); END",
                 nullptr, nullptr, nullptr);
    sqlite3_close(database);
    EXPECT_THAT(ThrownText([&] {
                    settings.Set({{"sec", std::int64_t{7}}, {"usec", std::int64_t{7}}});
                }),
                testing::HasSubstr("refused"));
    EXPECT_EQ(settings.GetInt("sec"), 100);
}

TEST_F(SettingsTest, AFileOfAnotherUserCanBeReadAndDefaultsCount) {
    Writer other([&] {
        if (geteuid() == 0 && seteuid(65534) != 0) {
            _exit(2);
        }
        QuarnSettingsClient settings(path.c_str());
        settings.SetDefault("new", 5);
        const bool isRight = settings.GetInt("new") == 5 && settings.GetInt("a") == 1;
        const std::string refused = ThrownText([&] { settings.Set("a", 2); });
        _exit(isRight && refused.find("readonly") != std::string::npos ? 0 : 1);
    });
    QuarnSettingsClient(path.c_str()).Set("a", 1);
    std::filesystem::permissions(path, std::filesystem::perms(0444));
    std::filesystem::permissions(folder.Path(), std::filesystem::perms(0755));
    other.Go();
    EXPECT_EQ(other.End(), 0);
}

// Each writer counts in a setting of its own; what it was told to be set must be there, and no more than it began.
TEST_F(SettingsTest, NothingIsLostOrHalfWhenWritersAreKilled) {
    constexpr int kWriters = 4;
    constexpr int kKills = kSlowBuild ? 2 : 8;
    constexpr std::int64_t kWrites = kSlowBuild ? 100 : 1000;
    struct Shared {
        std::array<std::atomic<std::int64_t>, kWriters> done;
        std::array<std::atomic<std::int64_t>, kWriters> begun;
    };
    auto* const shared = static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared, MAP_FAILED);
    const auto total = [&] {
        return std::accumulate(shared->done.begin(), shared->done.end(), std::int64_t{0});
    };
    const auto work = [&](std::size_t number) {
        QuarnSettingsClient settings(path.c_str());
        for (;;) {
            const std::int64_t value = ++shared->begun[number];
            settings.Set("writer." + std::to_string(number), std::string(200, 'x') + std::to_string(value));
            shared->done[number] = value;
        }
    };
    for (int kill = 1; kill <= kKills; ++kill) {
        std::vector<std::unique_ptr<Writer>> writers;
        for (std::size_t number = 0; number != kWriters; ++number) {
            writers.push_back(std::make_unique<Writer>([&work, number] { work(number); }));
            writers.back()->Go();
        }
        ASSERT_TRUE(WaitUntil([&] { return total() >= kWrites * kill / kKills; }));
        for (const auto& writer : writers) {
            writer->Kill();
        }
        for (const auto& writer : writers) {
            writer->End();
        }
        // In another process, too: SQLite does not survive the forks to come.
        Writer reader([&] {
            const QuarnSettingsClient settings(path.c_str());
            bool right = true;
            for (std::size_t number = 0; number != kWriters; ++number) {
                const std::string text = settings.GetString("writer." + std::to_string(number)).value_or("");
                const std::int64_t value = text.size() > 200 ? std::stoll(text.substr(200)) : 0;
                right = right && text.find_first_not_of('x') == (value == 0 ? std::string::npos : 200) &&
                        value >= shared->done[number] && value <= shared->begun[number];
            }
            _exit(right ? 0 : 1);
        });
        reader.Go();
        EXPECT_EQ(reader.End(), 0) << "after kill " << kill;
    }
    munmap(shared, sizeof(Shared));
}

} // namespace
