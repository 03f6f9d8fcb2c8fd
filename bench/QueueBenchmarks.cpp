#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

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

// As many queues in a row as the argument says, with 200 buffers on the way in all of them together.
void QueuesInLine(benchmark::State& state) {
    constexpr unsigned int kOnTheWay = 200;
    auto* const sink = new DeletingSink;
    PluginContainer sinkHolder; // Outlives the last queue's thread.
    sinkHolder.AddPlugin(sink);
    std::vector<std::unique_ptr<PluginContainer>> queues(static_cast<std::size_t>(state.range(0)));
    quarn::calvane::Sink* next = sink->GetSink();
    for (auto& holder : queues) { // From the end, so that the threads of those in front end first.
        auto* const queue = new QueuePlugin(nullptr, DefaultPluginConfiguration("QueuePlugin"));
        holder = std::make_unique<PluginContainer>();
        holder->AddPlugin(queue);
        queue->ConnectToSink(next);
        next = queue->GetSink();
    }
    PluginContainer container;
    auto* const source = new PoolSource(kOnTheWay);
    container.AddPlugin(source);
    source->ConnectToSink(next);
    for ([[maybe_unused]] auto _ : state) {
        GenerateOne(container);
    }
    while (!queues.empty()) {
        DrainAll(*queues.back());
        queues.pop_back();
    }
}
BENCHMARK(QueuesInLine)->Arg(2)->Arg(4)->Arg(8)->UseRealTime();

/// Keeps how long each buffer took from its being pushed, in nanoseconds.
class DelaySink : public quarn::calvane::BasicSinkPlugin {
public:
    explicit DelaySink(const std::atomic<std::int64_t>& pushed)
        : BasicSinkPlugin(DefaultPluginConfiguration("DelaySink")), pushed_(pushed) {}
    void OnBuffer(const quarn::calvane::Sink*, quarn::calvane::Buffer* buffer) override {
        const std::int64_t now = Now();
        const std::unique_ptr<quarn::calvane::Buffer> owned(buffer);
        delays_.push_back(now - pushed_);
    }
    static std::int64_t Now() {
        return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
    }
    /// For when nothing is on the way. `share`: 0 the shortest to 1 the longest.
    double GetDelay(double share) {
        std::sort(delays_.begin(), delays_.end());
        return static_cast<double>(
            delays_.at(static_cast<std::size_t>(share * static_cast<double>(delays_.size() - 1))));
    }

private:
    const std::atomic<std::int64_t>& pushed_;
    std::vector<std::int64_t> delays_;
};

// From pushing a buffer into an empty queue to the consumer's handler, with a millisecond between two buffers.
void QueueDelay(benchmark::State& state) {
    std::atomic<std::int64_t> pushed{0};
    auto* const sink = new DelaySink(pushed);
    PluginContainer sinkHolder; // Outlives the queue's thread.
    sinkHolder.AddPlugin(sink);
    PluginContainer container;
    auto* const source = new PoolSource(1);
    container.AddPlugin(source);
    auto* const queue = new QueuePlugin(nullptr, DefaultPluginConfiguration("QueuePlugin"));
    container.AddPlugin(queue);
    source->ConnectToSink(queue->GetSink());
    queue->ConnectToSink(sink->GetSink());
    for ([[maybe_unused]] auto _ : state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        pushed = DelaySink::Now();
        GenerateOne(container);
    }
    DrainAll(container);
    state.counters["p50"] = sink->GetDelay(0.5);
    state.counters["p99.9"] = sink->GetDelay(0.999);
}
BENCHMARK(QueueDelay)->UseRealTime();

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
