#include <benchmark/benchmark.h>

#include "Pipelines.h"
#include "Plugins.h"
#include "calvane/plugins/QueuePlugin.h"

using quarn::calvane::DefaultPluginConfiguration;
using quarn::calvane::PluginContainer;
using quarn::calvane::QueuePlugin;

namespace {

// The argument is the number of buffers that can be on the way at once.
void QueueHandOff(benchmark::State& state) {
    DeletingSink* const sink = new DeletingSink;
    PluginContainer sinkHolder; // Outlives the queue's thread.
    sinkHolder.AddPlugin(sink);
    PluginContainer container;
    auto* const source = new PoolSource(static_cast<unsigned int>(state.range(0)));
    container.AddPlugin(source);
    auto* const queue = new QueuePlugin(nullptr, DefaultPluginConfiguration("QueuePlugin"));
    container.AddPlugin(queue);
    source->ConnectToSink(queue->GetSink());
    queue->ConnectToSink(sink->GetSink());
    RunPipeline(state, container);
}
BENCHMARK(QueueHandOff)->Arg(5)->Arg(200)->UseRealTime()->MeasureProcessCPUTime();

} // namespace
