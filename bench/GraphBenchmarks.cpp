#include <benchmark/benchmark.h>

#include "Pipelines.h"
#include "Plugins.h"

using quarn::calvane::PipelinePlugin;
using quarn::calvane::PluginContainer;
using quarn::calvane::Source;

namespace {

constexpr unsigned int kPoolBlocks = 5; // As many as a file source has if nobody says otherwise.

// Pushes the same buffer again and again through a chain of filters: what a filter costs is the difference
// between two lengths, divided by the number of filters.
void PassThroughChain(benchmark::State& state) {
    PluginContainer container;
    auto* const end = new KeepingSink; // The container's own when it is added.
    container.AddPlugin(end);
    PipelinePlugin* next = end;
    for (int64_t i = 0; i < state.range(0); ++i) {
        auto* const filter = new PassThrough;
        container.AddPlugin(filter);
        filter->ConnectToSink(next->GetSink());
        next = filter;
    }
    Source source;
    source.ConnectTo(next->GetSink());
    PushAgainAndAgain(state, source, *end);
}
BENCHMARK(PassThroughChain)->Name("PassThrough")->Arg(0)->Arg(10)->Arg(100)->Arg(1000);

void RunWithSinks(benchmark::State& state, int sinks) {
    PluginContainer container;
    auto* const source = new PoolSource(kPoolBlocks);
    container.AddPlugin(source);
    for (int i = 0; i < sinks; ++i) {
        auto* const sink = new DeletingSink;
        container.AddPlugin(sink);
        source->ConnectToSink(sink->GetSink());
    }
    RunPipeline(state, container);
}

void GeneratePushConsume(benchmark::State& state) {
    RunWithSinks(state, 1);
}
BENCHMARK(GeneratePushConsume);

void FanOut(benchmark::State& state) {
    RunWithSinks(state, static_cast<int>(state.range(0)));
}
BENCHMARK(FanOut)->Arg(3)->Arg(10)->Arg(100);

} // namespace
