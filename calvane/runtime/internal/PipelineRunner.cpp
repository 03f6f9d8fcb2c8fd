#include <exception>

#include "calvane/config/Description.h"
#include "calvane/config/DescriptionKeys.h"
#include "calvane/config/PipelineLoader.h"
#include "calvane/graph/SettingException.h"
#include "calvane/graph/internal/RunningPlugin.h"
#include "calvane/graph/internal/SignalStack.h"
#include "calvane/runtime/IPipelineReporter.h"
#include "calvane/runtime/internal/PipelineRunner.h"
#include "quarn/core/IniFile.h"
#include "quarn/core/Logger.h"
#include "quarn/core/StringUtil.h"
#include "quarn/osa/MutexAutoLock.h"
#include "quarn/osa/TimeStruct.h"

namespace quarn::calvane {

namespace {

constexpr unsigned int kDefaultStackBytes = 2048; // The thread layer raises it to what it needs.
constexpr signed char kDefaultPriority = 0;

template <typename Number>
Number ReadThreadSetting(const core::IniFile& ini, const std::string& pipeline, const char* key,
                         Number defaultValue) {
    Number number = defaultValue;
    if (ini.HasValue(pipeline, key)) {
        const std::string& value = ini.GetValue(pipeline, key);
        if (!core::StringUtil::TryParse(value, number)) {
            throw SettingException(
                pipeline, key,
                "Invalid value of \"" + value + "\" for setting " + key + " in pipeline " + pipeline);
        }
    }
    return number;
}

// A period of more than an hour is slept in parts, since the sleep takes 32 bits of microseconds.
void Sleep(osa::TimeStruct period) {
    constexpr unsigned int kLongestSeconds = 3600;
    for (; period.seconds > kLongestSeconds; period.seconds -= kLongestSeconds) {
        osa::Thread::CurrentThread::MicroSleep(kLongestSeconds * osa::TimeStruct::kMicrosecondsPerSecond);
    }
    osa::Thread::CurrentThread::MicroSleep(period.seconds * osa::TimeStruct::kMicrosecondsPerSecond +
                                           period.microseconds);
}

} // namespace

PipelineRunner::PipelineRunner(const std::string& name, IPipelineReporter* reporter, PipelineLoader& loader,
                               const Description& description)
    : logger_(core::Logger::GetLogger(name)), name_(name), reporter_(reporter) {
    loader.LoadPipeline(container_, description, name);
}

void PipelineRunner::Run() {
    const SignalStack signalStack;
    logger_->Information("Pipeline starting");
    running_ = true;
    SetState(PipelineState::Running);
    try {
        SetState(RunUntilEnd());
        running_ = false;
        logger_->Information("Pipeline exiting normally");
    } catch (const std::exception& error) {
        OnException(error.what());
    } catch (...) {
        OnException("Unknown exception");
    }
}

void PipelineRunner::Stop() {
    stopRequested_ = true;
}

PipelineStatus PipelineRunner::GetStatus() const {
    const osa::MutexAutoLock lock(stateLock_);
    return {name_, state_, failure_};
}

PipelineState PipelineRunner::RunUntilEnd() {
    while (!stopRequested_) {
        const osa::TimeStruct start(true);
        osa::TimeStruct period;
        if (!container_.GenerateBuffer(period)) {
            logger_->Information("Pipeline out of data");
            return PipelineState::OutOfData;
        }
        if (period.IsZero()) {
            continue;
        }
        const osa::TimeStruct elapsed = osa::TimeStruct(true) - start;
        if (elapsed < period && !stopRequested_) {
            Sleep(period - elapsed);
        }
    }
    return PipelineState::Stopped;
}

void PipelineRunner::OnException(const std::string& text) {
    SetState(PipelineState::Failed, text);
    running_ = false;
    logger_->Error("Pipeline exiting due to exception: %s", text.c_str());
    reporter_->ReportFailure(name_, text);
    RunningPlugin::Leave(nullptr);
}

void PipelineRunner::SetState(PipelineState state, const std::string& failure) {
    const osa::MutexAutoLock lock(stateLock_);
    state_ = state;
    failure_ = failure;
}

PipelineHead::PipelineHead(const std::string& name, IPipelineReporter* reporter, PipelineLoader& loader,
                           const Description& description)
    : runner_(name, reporter, loader, description),
      thread_{name.c_str(), &runner_,
              ReadThreadSetting(description.GetIni(), name, keys::kThreadStackBytes, kDefaultStackBytes),
              ReadThreadSetting(description.GetIni(), name, keys::kThreadPriority, kDefaultPriority)} {}

PipelineHead::~PipelineHead() {
    Stop();
}

void PipelineHead::Start() {
    const bool ran = runner_.Running().exchange(true);
    try {
        thread_.Run();
    } catch (...) {
        runner_.Running() = ran;
        throw;
    }
}

void PipelineHead::Drain() {
    for (PipelinePlugin* plugin : GetPlugins()) {
        if (plugin != nullptr) {
            plugin->Drain();
        }
    }
}

} // namespace quarn::calvane
