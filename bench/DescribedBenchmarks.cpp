#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "Descriptions.h"
#include "Pipelines.h"
#include "Plugins.h"
#include "calvane/config/IPluginFactory.h"
#include "calvane/config/PluginManager.h"
#include "calvane/runtime/ConnectionMeter.h"
#include "calvane/runtime/PipelineManager.h"

using quarn::calvane::CalvaneEnv;
using quarn::calvane::ConnectionMeter;
using quarn::calvane::IPluginConfiguration;
using quarn::calvane::IPluginFactory;
using quarn::calvane::PipelineManager;
using quarn::calvane::PipelinePlugin;
using quarn::calvane::PluginManager;
using quarn::calvane::Source;

namespace {

constexpr int kPoolBlocks = 5;

/// Makes as many buffers as its setting "buffers" says, then is out of data.
class CountedSource : public PoolSource {
public:
    explicit CountedSource(const IPluginConfiguration& config)
        : PoolSource(static_cast<unsigned int>(config.GetIntOrDefault("blocks", kPoolBlocks))),
          left_(config.GetIntOrDefault("buffers", 0)) {}
    bool OnGenerateBuffer(quarn::osa::TimeStruct& next) override {
        return left_-- > 0 && PoolSource::OnGenerateBuffer(next);
    }

private:
    int left_;
};

const PluginManager::PluginAutoRegister kCountedSource(
    "BenchCountedSource", [](CalvaneEnv*, const IPluginConfiguration& config) -> PipelinePlugin* {
        return new CountedSource(config);
    });
const PluginManager::PluginAutoRegister kPassThrough("BenchPassThrough",
                                                     [](CalvaneEnv*, const IPluginConfiguration&)
                                                         -> PipelinePlugin* { return new PassThrough; });
const PluginManager::PluginAutoRegister kDeletingSink("BenchDeletingSink",
                                                      [](CalvaneEnv*, const IPluginConfiguration&)
                                                          -> PipelinePlugin* { return new DeletingSink; });

/// The head of a line whose buffers a benchmark pushes itself.
class HandFedSource : public quarn::calvane::BasicSourcePlugin {
public:
    HandFedSource() : BasicSourcePlugin(quarn::calvane::DefaultPluginConfiguration("HandFedSource")) {}
    bool OnGenerateBuffer(quarn::osa::TimeStruct&) override { return false; }
    Source& GetSource() { return *source; }
};

/// Makes the plugins of one line and knows its two ends.
class LineFactory : public IPluginFactory {
public:
    PipelinePlugin* CreatePlugin(const IPluginConfiguration& config) override {
        const std::string type = config.GetPluginType();
        if (type == "head") {
            return head_ = new HandFedSource;
        }
        if (type == "end") {
            return end_ = new KeepingSink;
        }
        return new PassThrough;
    }
    Source& GetHead() { return head_->GetSource(); }
    KeepingSink& GetEnd() { return *end_; }

private:
    HandFedSource* head_ = nullptr; // As is end_: the manager's.
    KeepingSink* end_ = nullptr;
};

// The same as PassThrough, but loaded from a description.
void RunDescribed(benchmark::State& state, bool metered) {
    const auto plugins = static_cast<unsigned int>(state.range(0));
    Descriptions descriptions;
    descriptions.AddLine(LineOf("head", plugins, "middle", "end"));
    LineFactory factory;
    ConnectionMeter meter;
    PipelineManager manager(&factory, false);
    if (metered) {
        manager.AddConnectionTap(&meter);
    }
    manager.LoadFromIniFile(descriptions.Parse());
    manager.PipelinesConstructed();
    PushAgainAndAgain(state, factory.GetHead(), factory.GetEnd());
    const auto pushed = static_cast<uint64_t>(state.iterations()) + 1;
    const auto counts = meter.Read();
    if (counts.size() != (metered ? plugins + 1 : 0) || (metered && counts.back().buffers != pushed)) {
        state.SkipWithError("The meter has not counted what was pushed");
    }
}

void Described(benchmark::State& state) {
    RunDescribed(state, false);
}
BENCHMARK(Described)->Arg(10);

void Metered(benchmark::State& state) {
    RunDescribed(state, true);
}
BENCHMARK(Metered)->Arg(10);

constexpr int64_t kBuffers = 1'000'000; // Of all pipelines together.

void RunFromStartToEnd(benchmark::State& state, const quarn::core::IniFile& ini) {
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        auto manager = std::make_unique<PipelineManager>();
        manager->LoadFromIniFile(ini);
        manager->PipelinesConstructed();
        state.ResumeTiming();
        manager->Start();
        manager->WaitForFinish();
        state.PauseTiming();
        manager.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBuffers);
}

// As many pipelines as the argument says at once, each with a thread of its own, from start to end.
void Concurrent(benchmark::State& state) {
    Descriptions descriptions;
    for (int64_t i = 0; i != state.range(0); ++i) {
        descriptions.AddLine({"BenchCountedSource", "BenchPassThrough", "BenchDeletingSink"},
                             "buffers = " + std::to_string(kBuffers / state.range(0)) + "\n");
    }
    RunFromStartToEnd(state, descriptions.Parse());
}
BENCHMARK(Concurrent)->Arg(1)->Arg(10)->Arg(50)->UseRealTime();

// One queue, and as many threads in front of it as the argument says, with 200 buffers on the way.
void QueueFedBy(benchmark::State& state) {
    constexpr int64_t kOnTheWay = 200;
    std::string names;
    std::string groups;
    for (int64_t i = 0; i != state.range(0); ++i) {
        const std::string name = "feed" + std::to_string(i);
        names += (i == 0 ? "" : ",") + name;
        groups += "[" + name + "]\nt.pipeline.head = source-" + name + "\n[source-" + name +
                  "]\nt.plugin.type = BenchCountedSource\nt.pipeline.next = queue\nbuffers = " +
                  std::to_string(kBuffers / state.range(0)) +
                  "\nblocks = " + std::to_string(kOnTheWay / state.range(0)) + "\n";
    }
    RunFromStartToEnd(
        state, quarn::core::IniFile::FromText("[calvane]\nt.pipelines = " + names + "\n" + groups +
                                              "[queue]\nt.plugin.type = QueuePlugin\nt.pipeline.next = sink\n"
                                              "[sink]\nt.plugin.type = BenchDeletingSink\n"));
}
BENCHMARK(QueueFedBy)->Arg(4)->UseRealTime();

// From the text of a description to pipelines that could be started.
void StartUp(benchmark::State& state) {
    Descriptions descriptions;
    descriptions.AddLine(LineOf("BenchCountedSource", static_cast<unsigned int>(state.range(0)),
                                "IdentityPlugin", "BenchDeletingSink"));
    const std::string text = descriptions.GetText();
    for ([[maybe_unused]] auto _ : state) {
        auto manager = std::make_unique<PipelineManager>();
        manager->LoadFromIniFile(quarn::core::IniFile::FromText(text));
        manager->PipelinesConstructed();
        state.PauseTiming();
        manager.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(StartUp)->Arg(100)->Arg(998); // With head and end the longest line that is allowed.

} // namespace
