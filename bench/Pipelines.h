#pragma once

#include <benchmark/benchmark.h>

#include <memory>

#include "AllocationCount.h"
#include "Plugins.h"
#include "calvane/graph/PluginContainer.h"
#include "calvane/graph/Source.h"
#include "quarn/osa/TimeStruct.h"

/// One turn of a pipeline's thread, with the clock read that it makes before every call.
inline void GenerateOne(quarn::calvane::PluginContainer& container) {
    const quarn::osa::TimeStruct start(true);
    benchmark::DoNotOptimize(start);
    quarn::osa::TimeStruct period;
    benchmark::DoNotOptimize(container.GenerateBuffer(period));
}

inline void DrainAll(quarn::calvane::PluginContainer& container) {
    for (quarn::calvane::PipelinePlugin* plugin : container.GetPlugins()) {
        plugin->Drain();
    }
}

/// Times one buffer after the other through `container`; then counts the allocations that one takes.
inline void RunPipeline(benchmark::State& state, quarn::calvane::PluginContainer& container) {
    for (auto _ : state) {
        GenerateOne(container);
    }
    DrainAll(container);
    constexpr int kCounted = 10000;
    const AllocationCount count;
    for (int i = 0; i < kCounted; ++i) {
        GenerateOne(container);
    }
    DrainAll(container);
    state.counters["allocations"] = static_cast<double>(count.Get()) / kCounted;
}

/// Times one buffer being pushed from `source` to `end` again and again; then counts its allocations.
inline void PushAgainAndAgain(benchmark::State& state, quarn::calvane::Source& source, KeepingSink& end) {
    quarn::core::StandardHeapAllocator heap(0);
    auto buffer = std::make_unique<quarn::calvane::Buffer>(heap.Allocate(kBufferBytes));
    for (auto _ : state) {
        source.PushBuffer(buffer.release());
        buffer.reset(end.Take());
    }
    const AllocationCount count;
    source.PushBuffer(buffer.release());
    state.counters["allocations"] = static_cast<double>(count.Get());
}
