#include "calvane/RunCommand.h"

#include <exception>
#include <iostream>
#include <optional>

#include "calvane/DescribedPipelines.h"
#include "calvane/ExitStatus.h"
#include "calvane/Findings.h"
#include "calvane/SignalWatcher.h"
#include "calvane/StatsPrinter.h"
#include "calvane/TraceRecorder.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/Logger.h"

namespace calvane_program {

namespace {

using quarn::calvane::PipelineManager;
using quarn::calvane::PipelineState;
using quarn::calvane::PipelineStatus;
using quarn::calvane::QueueStatus;
using quarn::core::Logger;

void SetUpLogging(const RunOptions& options) {
    Logger::SetLevels(options.logLevels);
    if (options.syslog) {
        Logger::LogToSyslog("calvane");
    } else if (!options.logFile.empty()) {
        Logger::LogToFile(options.logFile);
    }
}

std::string HowItEnded(const PipelineStatus& pipeline) {
    switch (pipeline.state) {
        case PipelineState::Loaded:
            return "not started";
        case PipelineState::Running:
            return "running";
        case PipelineState::OutOfData:
            return "out of data";
        case PipelineState::Stopped:
            return "stopped";
        case PipelineState::Failed:
            return "failed: " + pipeline.failure;
    }
    return {};
}

void PrintEnds(const PipelineManager& manager) {
    for (const PipelineStatus& pipeline : manager.GetStatus()) {
        std::cout << "pipeline " << pipeline.name << ": " << HowItEnded(pipeline) << "\n";
    }
    for (const QueueStatus& queue : manager.GetQueueStatus()) {
        if (const auto dropped = queue.statistics.dropped; dropped != 0) {
            std::cout << "queue " << queue.name << ": dropped " << dropped
                      << (dropped == 1 ? " buffer" : " buffers") << "\n";
        }
    }
    std::cout << std::flush;
}

int RunToTheEnd(PipelineManager& manager) {
    int status = kDone;
    try {
        manager.Start();
        manager.WaitForFinish();
        manager.Drain(); // What is still in queues counts: a full disk may show only now.
        manager.WaitForFinish();
    } catch (const std::exception& error) {
        PrintError(std::string("calvane: ") + error.what());
        status = kFailedWhileRunning;
        manager.SignalShutdown();
    }
    return status;
}

int RunDescribed(DescribedPipelines& pipelines, SignalWatcher& watcher, StatsPrinter* stats) {
    if (!pipelines.Load()) {
        return kBadInput;
    }
    PipelineManager& manager = pipelines.GetManager();
    watcher.Watch([&manager] { manager.SignalShutdown(); });
    if (stats != nullptr) {
        stats->Begin(manager);
    }
    const int status = RunToTheEnd(manager);
    if (stats != nullptr) {
        stats->End();
    }
    PrintEnds(manager);
    watcher.End();
    return status;
}

// What watches the pipelines outlives them.
int RunObserved(const quarn::core::IniFile& ini, const RunOptions& options, SignalWatcher& watcher) {
    std::optional<StatsPrinter> stats;
    std::optional<TraceRecorder> trace;
    int status = kDone;
    {
        DescribedPipelines pipelines(ini);
        if (options.statsSeconds > 0) {
            pipelines.GetManager().AddConnectionTap(&stats.emplace(options.statsSeconds).GetMeter());
        }
        if (!options.traceFile.empty()) {
            pipelines.GetManager().AddConnectionTap(&trace.emplace(options.traceFile));
        }
        status = RunDescribed(pipelines, watcher, stats ? &*stats : nullptr);
    }
    if (trace) {
        try {
            trace->Finish();
        } catch (const std::exception& error) {
            PrintError(std::string("calvane: ") + error.what());
            status = status == kDone ? kFailedWhileRunning : status;
        }
    }
    return status;
}

} // namespace

int Run(const RunOptions& options) {
    try {
        SignalWatcher watcher;
        SetUpLogging(options);
        const quarn::core::IniFile ini(options.file);
        unsigned int warnings = 0;
        if (PrintFindings(ini, warnings) != 0) {
            return kBadInput;
        }
        return RunObserved(ini, options, watcher);
    } catch (const std::exception& error) {
        PrintError(error.what());
        return kBadInput;
    }
}

} // namespace calvane_program
