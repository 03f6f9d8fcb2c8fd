#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>

#include "Plugins.h"
#include "calvane/config/PluginManager.h"
#include "calvane/runtime/PipelineManager.h"
#include "quarn/core/IniFile.h"
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
const PluginManager::PluginAutoRegister kDeletingSink("BenchDeletingSink",
                                                      [](CalvaneEnv*, const IPluginConfiguration&)
                                                          -> PipelinePlugin* { return new DeletingSink; });

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

quarn::core::IniFile Describe(int64_t pipelines) {
    std::string names;
    std::string groups;
    for (int64_t i = 0; i < pipelines; ++i) {
        const std::string number = std::to_string(i);
        names += (i == 0 ? "pipeline" : ", pipeline") + number;
        groups += "[pipeline" + number + "]\nt.pipeline.head = source" + number + "\n";
        groups += "[source" + number + "]\nt.plugin.type = BenchIdleSource\nt.pipeline.next = queue" + number;
        groups += "\n[queue" + number + "]\nt.plugin.type = QueuePlugin\nt.pipeline.next = sink" + number;
        groups += "\n[sink" + number + "]\nt.plugin.type = BenchDeletingSink\n";
    }
    return quarn::core::IniFile::FromText("[calvane]\nt.pipelines = " + names + "\n" + groups);
}

// Not a matter of time. The first in its process only: what an earlier run has left mapped does not count.
void IdlePipelines(benchmark::State& state) {
    const auto perPipeline = [&state](int64_t before, int64_t after) {
        return static_cast<double>(after - before) / static_cast<double>(state.range(0));
    };
    for (auto _ : state) {
        const int64_t memory = ReadStatus("VmRSS");
        const int64_t threads = ReadStatus("Threads");
        PipelineManager manager;
        manager.LoadFromIniFile(Describe(state.range(0)));
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
