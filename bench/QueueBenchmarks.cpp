#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>

#include "Pipelines.h"
#include "Plugins.h"
#include "calvane/plugins/QueuePlugin.h"
#include "quarn/osa/CacheLine.h"

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

// What no hand-off between two threads can do without: two threads change one word in turns, so that its line
// of cache goes to and fro once for each iteration.
void CacheLineRoundTrip(benchmark::State& state) {
    constexpr unsigned int kEnd = 3;
    constexpr unsigned int kOurTurn = 1;
    constexpr unsigned int kTheirTurn = 2;
    alignas(quarn::osa::kCacheLineBytes) std::atomic<unsigned int> turn{kOurTurn};
    std::thread other([&turn] {
        for (unsigned int seen = 0; seen != kEnd; seen = turn.load(std::memory_order_acquire)) {
            if (seen == kTheirTurn) {
                turn.store(kOurTurn, std::memory_order_release);
            }
        }
    });
    const auto awaitOurTurn = [&turn] {
        while (turn.load(std::memory_order_acquire) != kOurTurn) {
        }
    };
    for ([[maybe_unused]] auto _ : state) {
        awaitOurTurn();
        turn.store(kTheirTurn, std::memory_order_release);
    }
    awaitOurTurn();
    turn.store(kEnd, std::memory_order_release);
    other.join();
}
BENCHMARK(CacheLineRoundTrip)->UseRealTime();

} // namespace
