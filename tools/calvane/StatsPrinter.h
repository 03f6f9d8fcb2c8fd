#pragma once

#include <vector>

#include "Throughput.h"
#include "calvane/runtime/ConnectionMeter.h"
#include "calvane/runtime/PipelineManager.h"
#include "quarn/osa/Runnable.h"
#include "quarn/osa/Semaphore.h"
#include "quarn/osa/Thread.h"
#include "quarn/osa/TimeStruct.h"

namespace calvane_program {

/// Prints on standard output, at a steady pace, what the plugins did: a table that stays in its place on a
/// terminal, otherwise lines.
///
/// Lifetime: make it before the pipelines are loaded; they have to be gone before it is.
class StatsPrinter final : private quarn::osa::Runnable {
public:
    explicit StatsPrinter(double secondsBetween);
    ~StatsPrinter() override;
    StatsPrinter(const StatsPrinter&) = delete;
    StatsPrinter& operator=(const StatsPrinter&) = delete;

    /// To be added to the pipelines before they are loaded.
    quarn::calvane::ConnectionMeter& GetMeter() { return meter_; }
    /// Starts to print. `manager` must not go before End.
    void Begin(const quarn::calvane::PipelineManager& manager);
    /// Prints once more and ends. Does nothing if it never began.
    void End();

private:
    void Run() override;
    void Stop() override { stop_.Release(); }
    void Print();

    const unsigned int periodMs_;
    const bool onTerminal_;
    quarn::calvane::ConnectionMeter meter_;
    const quarn::calvane::PipelineManager* manager_ = nullptr;
    quarn::osa::Semaphore stop_{"Stats", 0, 1};
    quarn::osa::Thread thread_;

    // Of the printing thread, then of the one that called End.
    std::vector<PluginThroughput> before_;
    quarn::osa::TimeStruct start_;
    quarn::osa::TimeStruct last_;
};

} // namespace calvane_program
