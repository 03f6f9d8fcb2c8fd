#include <algorithm>
#include <exception>
#include <iostream>
#include <optional>

#include "Commands.h"
#include "Source.h"
#include "StatsPrinter.h"
#include "TraceRecorder.h"
#include "calvane/runtime/CrashReport.h"
#include "command_line/ExitStatus.h"
#include "pipelines/DescribedPipelines.h"
#include "pipelines/SignalWatcher.h"
#include "quarn/core/Logger.h"

namespace calvane_program {

namespace {

using quarn::calvane::PipelineManager;
using quarn::calvane::PipelineState;
using quarn::calvane::PipelineStatus;
using quarn::calvane::QueueStatus;
using quarn::core::Logger;

/// Warnings and errors, but for what the program prints itself, with its place in the description: the names of
/// loggers, and those of pipelines, which log how they end.
std::string DefaultLevels(const CheckedDescription& description) {
    std::string levels = "*=warning,IniPluginConfig=error,PipelineLoader=off,PipelineManager=off";
    const auto& graph = description.GetGraph();
    for (const auto& pipeline : graph.GetPipelines()) {
        const bool isPlugin =
            std::any_of(graph.GetPlugins().begin(), graph.GetPlugins().end(),
                        [&pipeline](const auto* plugin) { return plugin->name == pipeline.name; });
        if (!isPlugin && pipeline.name.find_first_of("=,*") == std::string::npos) {
            levels += "," + pipeline.name + "=off";
        }
    }
    return levels;
}

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

int RunToTheEnd(DescribedPipelines& pipelines) {
    PipelineManager& manager = pipelines.GetManager();
    int status = kDone;
    try {
        manager.Start();
        manager.WaitForFinish();
        manager.Drain(); // What is still in queues counts: a full disk may show only now.
        manager.WaitForFinish();
    } catch (const std::exception& error) {
        if (manager.GetFailures().empty()) {
            PrintError(std::string("calvane: ") + error.what()); // A thread that could not be started.
        } else {
            pipelines.PrintFailure();
        }
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
    const int status = RunToTheEnd(pipelines);
    if (stats != nullptr) {
        stats->End();
    }
    PrintEnds(manager);
    watcher.End();
    return status;
}

// What watches the pipelines outlives them.
int RunObserved(CheckedDescription& description, const RunOptions& options, SignalWatcher& watcher) {
    std::optional<StatsPrinter> stats;
    std::optional<TraceRecorder> trace;
    int status = kDone;
    {
        DescribedPipelines pipelines(description);
        if (options.statsSeconds > 0) {
            pipelines.GetManager().AddConnectionTap(&stats.emplace(options.statsSeconds).GetMeter());
        }
        if (!options.traceFile.empty()) {
            pipelines.GetManager().AddConnectionTap(&trace.emplace(options.traceFile));
        }
        status = RunDescribed(pipelines, watcher, stats ? &*stats : nullptr);
        if (status == kFailedWhileRunning) {
            Logger::SetLevels("off"); // The manager logs the failure once more when it goes.
        }
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
        quarn::calvane::InstallCrashReport("calvane");
        SetUpLogging(options);
        CheckedDescription description(ReadDescription(options.source));
        if (!description.Check()) {
            return kBadInput;
        }
        if (options.logLevels.empty()) {
            Logger::SetLevels(DefaultLevels(description));
        }
        return RunObserved(description, options, watcher);
    } catch (const std::exception& error) {
        PrintError(error.what());
        return kBadInput;
    }
}

} // namespace calvane_program
