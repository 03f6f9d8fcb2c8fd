#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>

#include "Descriptions.h"
#include "calvane/config/PluginManager.h"
#include "calvane/graph/BasicSourcePlugin.h"
#include "calvane/runtime/PipelineManager.h"
#include "quarn/osa/Exception.h"

using quarn::calvane::CalvaneEnv;
using quarn::calvane::IPluginConfiguration;
using quarn::calvane::PipelineManager;
using quarn::calvane::PipelinePlugin;
using quarn::calvane::PluginManager;

namespace {

/// Has nothing to push and asks to be called again much later.
class IdleSource : public quarn::calvane::BasicSourcePlugin {
public:
    explicit IdleSource(const IPluginConfiguration& config) : BasicSourcePlugin(config) {}
    bool OnGenerateBuffer(quarn::osa::TimeStruct& next) override {
        next = {1, 0};
        return true;
    }
};

const PluginManager::PluginAutoRegister kIdleSource(
    "BenchIdleSource", [](CalvaneEnv*, const IPluginConfiguration& config) -> PipelinePlugin* {
        return new IdleSource(config);
    });

/// A figure of /proc/self/status, in its own unit: "VmRSS" in KiB, "Threads" in threads.
int64_t ReadStatus(const std::string& key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, key.size() + 1, key + ":") == 0) {
            return std::stoll(line.substr(key.size() + 1));
        }
    }
    throw quarn::osa::Exception("/proc/self/status does not tell " + key);
}

// Not a matter of time. The first in its process only: what an earlier run has left mapped does not count.
void IdlePipelines(benchmark::State& state) {
    const auto perPipeline = [&state](int64_t before, int64_t after) {
        return static_cast<double>(after - before) / static_cast<double>(state.range(0));
    };
    for ([[maybe_unused]] auto _ : state) {
        const int64_t memory = ReadStatus("VmRSS");
        const int64_t threads = ReadStatus("Threads");
        Descriptions descriptions;
        for (int64_t i = 0; i != state.range(0); ++i) {
            descriptions.AddLine({"BenchIdleSource", "QueuePlugin", "BenchDeletingSink"});
        }
        PipelineManager manager;
        manager.LoadFromIniFile(descriptions.Parse());
        manager.PipelinesConstructed();
        manager.Start();
        std::this_thread::sleep_for(std::chrono::milliseconds(500)); // Until all threads have come to rest.
        state.counters["kib_per_pipeline"] = perPipeline(memory, ReadStatus("VmRSS"));
        state.counters["threads_per_pipeline"] = perPipeline(threads, ReadStatus("Threads"));
        manager.Stop();
    }
}
BENCHMARK(IdlePipelines)->Arg(24)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
