#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "drenn/core/Logging.h"
#include "drenn/core/Settings.h"

namespace {

void LogLinePassedOver(benchmark::State& state) {
    void* cookie = nullptr;
    drenn_core_logging_init("Bench", &cookie); // At the level of warnings.
    int number = 0;
    for (auto _ : state) {
        drenn_core_log(cookie, DRENN_CORE_LOG_DEBUG, "number %d of %s", ++number, "many");
    }
    drenn_core_logging_deinit(cookie);
}
BENCHMARK(LogLinePassedOver);

// One of a hundred settings; a change by another process would be seen.
void SettingRead(benchmark::State& state) {
    const std::string path = std::filesystem::temp_directory_path() /
                             ("calvane-bench-settings-" + std::to_string(getpid()) + ".db");
    setenv("DRENN_SETTINGS", path.c_str(), 1);
    for (int i = 0; i != 100; ++i) {
        drenn_core_settings_set_default_int_value(("bench." + std::to_string(i)).c_str(), i);
    }
    int value = 0;
    for (auto _ : state) {
        if (drenn_core_settings_get_int_value("bench.50", &value) != 0 || value != 50) {
            state.SkipWithError("the setting is not there");
            break;
        }
    }
    std::filesystem::remove(path);
}
BENCHMARK(SettingRead)->Iterations(2000000);

} // namespace
