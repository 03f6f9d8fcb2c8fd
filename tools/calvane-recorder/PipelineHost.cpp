#include "PipelineHost.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <utility>

#include "command_line/ExitStatus.h"
#include "pipelines/CheckedDescription.h"
#include "pipelines/DescribedPipelines.h"
#include "quarn/core/Logger.h"

namespace calvane_recorder {

using namespace calvane_program;
using quarn::calvane::PipelineState;
using quarn::core::IniFile;
using quarn::core::Logger;

namespace {

Logger* GetLogger() {
    static Logger* const logger = Logger::GetLogger("calvane-recorder");
    return logger;
}

void LogLine(Severity severity, const std::string& line) {
    if (severity == Severity::Error) {
        GetLogger()->Error("%s", line.c_str());
    } else {
        GetLogger()->Warning("%s", line.c_str());
    }
}

bool IsReadByJournal() {
    return std::getenv("JOURNAL_STREAM") != nullptr;
}

/// Whatever the comments and the order of the keys.
bool SaysTheSame(const IniFile& one, const IniFile& other) {
    const auto& groups = one.GetGroups();
    return groups == other.GetGroups() &&
           std::all_of(groups.begin(), groups.end(),
                       [&](const std::string& group) { return one[group] == other[group]; });
}

} // namespace

void ReportError(const std::string& line) {
    if (IsReadByJournal()) {
        LogLine(Severity::Error, line);
    } else {
        PrintError(line);
    }
}

struct PipelineHost::Pipelines {
    Pipelines(const std::string& path, CheckedDescription::Reporter reporter)
        : description(IniFile(path), std::move(reporter)) {}

    int Start();
    int End();

    CheckedDescription description;
    std::optional<DescribedPipelines> running;
};

int PipelineHost::Pipelines::Start() {
    running.emplace(description);
    if (!running->Load()) {
        running.reset();
        return kBadInput;
    }
    try {
        running->GetManager().Start();
        return kDone;
    } catch (const std::exception& problem) {
        ReportError(std::string("calvane-recorder: ") + problem.what());
        End();
        return kFailedWhileRunning;
    }
}

int PipelineHost::Pipelines::End() {
    int status = kDone;
    if (running) {
        try {
            running->GetManager().SignalShutdown();
            running->GetManager().WaitForFinish();
            running->GetManager().Drain();
            running->GetManager().WaitForFinish();
        } catch (const std::exception& problem) {
            ReportError(std::string("calvane-recorder: ") + problem.what());
            status = kFailedWhileRunning;
        }
        running.reset();
    }
    return status;
}

PipelineHost::PipelineHost(std::string path) : path_(std::move(path)) {}

PipelineHost::~PipelineHost() = default;

bool PipelineHost::Read() {
    if (path_.empty()) {
        return true;
    }
    pipelines_ = std::make_unique<Pipelines>(
        path_, IsReadByJournal() ? &LogLine : CheckedDescription::Reporter(&PrintLine));
    return pipelines_->description.Check();
}

int PipelineHost::Start() {
    return pipelines_ ? pipelines_->Start() : kDone;
}

void PipelineHost::Reload() {
    if (!pipelines_) {
        return;
    }
    std::unique_ptr<Pipelines> next;
    try {
        next = std::make_unique<Pipelines>(path_, &LogLine);
        if (SaysTheSame(next->description.GetIni(), pipelines_->description.GetIni())) {
            GetLogger()->Information("%s says the same as before; its pipelines go on", path_.c_str());
            return;
        }
        if (next->description.Check()) {
            Exchange(std::move(next));
            return;
        }
    } catch (const std::exception& problem) {
        GetLogger()->Error("%s", problem.what());
    }
    GetLogger()->Error("%s is not taken over, for the reason above; the pipelines go on as they were",
                       path_.c_str());
}

/// The old ones end first: both may want the same camera.
void PipelineHost::Exchange(std::unique_ptr<Pipelines> next) {
    GetLogger()->Information("%s has changed: its pipelines replace those that run", path_.c_str());
    pipelines_->End();
    sd_notify(0, "WATCHDOG=1");
    if (next->Start() == kDone) {
        pipelines_ = std::move(next);
        return;
    }
    GetLogger()->Error("The pipelines of %s as it is now cannot be started; those that ran are started again",
                       path_.c_str());
    next = nullptr; // It may still hold the camera.
    sd_notify(0, "WATCHDOG=1");
    isLost_ = pipelines_->Start() != kDone;
}

bool PipelineHost::HasFailed() const {
    if (!pipelines_ || !pipelines_->running) {
        return isLost_;
    }
    const auto all = pipelines_->running->GetManager().GetStatus();
    return std::any_of(all.begin(), all.end(),
                       [](const auto& pipeline) { return pipeline.state == PipelineState::Failed; });
}

int PipelineHost::End() {
    const int status = pipelines_ ? pipelines_->End() : kDone;
    return isLost_ ? kFailedWhileRunning : status;
}

} // namespace calvane_recorder
