// What is left of a store and of the settings when the power goes under a real kernel's file system.

#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <iostream>

#include "LoggedDisk.h"
#include "drenn/multi_track_recorder/internal/recovery/StoreVerifier.h"
#include "quarn/core/LogCapture.h"
#include "quarn/settings/QuarnSettingsClient.h"
#include "quarn/settings/Setting.h"
#include "support/Effort.h"
#include "support/store/Workload.h"

using namespace drenn::multi_track_recorder;
using quarn::settings::QuarnSettingsClient;
using testing::IsEmpty;

namespace {

constexpr std::size_t kDiskBytes = std::size_t{16} << 20U;
constexpr unsigned int kSteps = 600;
constexpr unsigned int kStepsPerSetting = 7;

std::atomic<bool> syncsDoNothing{false};

long SyncOrNot(long call, int file) {
    return syncsDoNothing ? 0 : syscall(call, file);
}

/// A value of the settings, and from when to when nothing older may be read.
struct SettingLife {
    std::int64_t value;
    std::size_t begun;
    std::size_t durable;
};

class RealPowerCut : public testing::Test {
protected:
    void SetUp() override {
        if (!disk.Why().empty()) {
            GTEST_SKIP() << disk.Why();
        }
        options = Workload::SmallStore();
        options.storage = disk.Path("data");
        options.database = disk.Path("database");
        options.maxPercent = 5; // The ring turns.
    }

    /// What one process does that is told of no error.
    void Live(unsigned int seed) {
        settings.clear();
        disk.Run("mkfs.ext4 -q -F -b 4096 -m 0 -E lazy_itable_init=0,lazy_journal_init=0");
        start = disk.Read();
        disk.Log(true);
        disk.Mount("ext4");
        begin = disk.GetMoment();
        {
            QuarnSettingsClient client(disk.Path("settings.db").c_str());
            Workload workload(
                PosixFileSystem(), [this] { return disk.GetMoment(); }, options, seed);
            for (unsigned int step = 0; step != kSteps; ++step) {
                workload.Step();
                if (step % kStepsPerSetting == 0) {
                    const std::size_t before = disk.GetMoment();
                    client.Set("value", step);
                    settings.push_back({step, before, disk.GetMoment()});
                }
            }
            lives = workload.GetLives();
            EXPECT_THAT(workload.GetFaults(), IsEmpty());
        }
        disk.Unmount();
        disk.Log(false);
    }

    /// The faults of so many states that the power may have left.
    std::vector<std::string> CutPower(std::size_t states, unsigned int seed) {
        std::mt19937 random(seed);
        const std::vector<DiskRequest> requests = disk.GetRequests();
        std::vector<std::size_t> moments(states);
        std::generate(moments.begin(), moments.end(),
                      [&] { return begin + random() % (requests.size() - begin + 1); });
        std::sort(moments.begin(), moments.end());
        DiskStates possible(start, requests);
        std::vector<std::string> faults;
        for (const std::size_t moment : moments) {
            disk.Write(possible.At(moment, random));
            for (const std::string& fault : Examine(moment)) {
                faults.push_back("moment " + std::to_string(moment) + ": " + fault);
            }
        }
        std::cout << states << " states of " << requests.size() << " requests were opened\n";
        return faults;
    }

    std::vector<std::string> Examine(std::size_t moment) {
        std::vector<std::string> faults;
        try {
            disk.Mount("ext4");
        } catch (const std::system_error& error) {
            return {error.what()};
        }
        try {
            {
                Store store(PosixFileSystem(), options);
                faults = CheckAt(moment, store, lives);
            }
            const auto more = VerifyStore(PosixFileSystem(), options.storage, options.database);
            faults.insert(faults.end(), more.begin(), more.end());
            ExamineSettings(moment, faults);
        } catch (const std::exception& error) {
            faults.emplace_back(error.what());
        }
        disk.Unmount();
        return faults;
    }

    void ExamineSettings(std::size_t moment, std::vector<std::string>& faults) const {
        std::int64_t least = -1;
        std::int64_t most = -1;
        for (const SettingLife& setting : settings) {
            least = setting.durable <= moment ? setting.value : least;
            most = setting.begun <= moment ? setting.value : most;
        }
        const std::int64_t value =
            QuarnSettingsClient(disk.Path("settings.db").c_str()).GetInt("value").value_or(-1);
        if (value < least || value > most) {
            faults.push_back("the setting is " + std::to_string(value) + ", not from " +
                             std::to_string(least) + " to " + std::to_string(most));
        }
    }

    const quarn::core::LogCapture log{quarn::core::LogLevel::Off};
    LoggedDisk disk{kDiskBytes};
    StoreOptions options;
    std::vector<unsigned char> start;
    std::size_t begin = 0;
    std::vector<TrackLife> lives;
    std::vector<SettingLife> settings;
};

} // namespace

// They take the place of the C library's, also for SQLite.
extern "C" int fsync(int file) {
    return static_cast<int>(SyncOrNot(SYS_fsync, file));
}
extern "C" int fdatasync(int file) {
    return static_cast<int>(SyncOrNot(SYS_fdatasync, file));
}

TEST_F(RealPowerCut, LosesNothingOnExt4) {
    unsigned int seed = 1;
    for (std::size_t left = Effort(200); left != 0 && !HasFailure(); ++seed) {
        const std::size_t states = std::min<std::size_t>(left, 500);
        Live(seed);
        EXPECT_THAT(CutPower(states, seed), IsEmpty()) << "seed " << seed;
        left -= states;
    }
}

// The test of the test.
TEST_F(RealPowerCut, IsNoticedWhereNothingIsSynced) {
    syncsDoNothing = true;
    Live(2);
    syncsDoNothing = false;
    EXPECT_THAT(CutPower(std::max<std::size_t>(Effort(20), 5), 2), testing::Not(IsEmpty()));
}
