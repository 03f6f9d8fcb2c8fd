#include "RecorderHost.h"

#include <malloc.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <memory>
#include <thread>
#include <utility>

#include "RecordingControl.h"
#include "UpkeepThread.h"
#include "calvane/recording/RecordingManager.h"
#include "command_line/ExitStatus.h"
#include "quarn/core/Logger.h"

namespace calvane_recorder {

using namespace calvane_program;
using namespace std::chrono_literals;
using quarn::calvane::RecordingManager;
using quarn::core::Logger;

namespace {

constexpr auto kWatchdogPeriod = 250ms;
constexpr auto kRetentionPeriod = 10s;
constexpr auto kStatusPeriod = 1s;
constexpr auto kTrimPeriod = 10s;
// What has been reported is written to the history no earlier; see RecordingManager::processHistorySaveQueue.
constexpr auto kHistoryHold = 1500ms;

Logger* GetLogger() {
    static Logger* const logger = Logger::GetLogger("calvane-recorder");
    return logger;
}

/// Any process may have set another limit.
void TakeRetentionSetting() {
    if (RecordingManager::takeMaxRetentionTimeSetting()) {
        const auto limit = boost::posix_time::to_simple_string(RecordingManager::getMaxRetentionTime());
        const auto space = RecordingManager::getMaxSpace();
        GetLogger()->Information(
            "Recorded data is kept for %s from now on (0: without limit), and takes at most %llu "
            "bytes, the history %llu (0: as many as there are)",
            limit.c_str(), static_cast<unsigned long long>(space.data),
            static_cast<unsigned long long>(space.history));
    }
}

/// Another text when there is another card, or the same with other things on it.
std::string LooksOf(const std::string& root) {
    struct stat facts {};
    if (stat(root.c_str(), &facts) != 0) {
        return {};
    }
    return std::to_string(facts.st_dev) + " " + std::to_string(facts.st_ino) + " " +
           std::to_string(facts.st_uid) + " " + std::to_string(facts.st_mode) + " " +
           std::to_string(facts.st_mtim.tv_sec) + " " + std::to_string(facts.st_mtim.tv_nsec);
}

/// Whether a folder lies in the file system of the one above it.
bool IsNothingMountedAt(const std::string& folder) {
    struct stat here {};
    struct stat above {};
    return stat(folder.c_str(), &here) == 0 && stat((folder + "/..").c_str(), &above) == 0 &&
           here.st_dev == above.st_dev;
}

} // namespace

/// The recorder's lifetime, and what is to be done for it all the time.
class Recorder {
public:
    explicit Recorder(const std::string& root) {
        RecordingManager::setRecordingRootPath(root);
        try {
            RecordingManager::init();
            control_ = std::make_unique<RecordingControl>();
            std::vector<UpkeepJob> jobs;
            jobs.emplace_back("Looking at the recording", kStatusPeriod, [this] { control_->Update(); });
            // Opening an input and answering for a long time take much for a moment, between what stays.
            jobs.emplace_back("Giving memory back", kTrimPeriod, [] { malloc_trim(0); });
            status_ = std::make_unique<UpkeepThread>("Status", std::move(jobs));
        } catch (...) {
            End();
            throw;
        }
    }
    ~Recorder() { End(); }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    void StartUpkeep();
    /// Also writes what is still held to be put in order.
    void EndHistory();

private:
    void StopUpkeep() {
        settings_ = nullptr;
        upkeep_ = nullptr;
    }
    void End() {
        StopUpkeep();
        status_ = nullptr;
        control_ = nullptr;
        RecordingManager::deinit();
    }

    std::unique_ptr<UpkeepThread> settings_; // Other processes may keep it waiting.
    std::unique_ptr<UpkeepThread> upkeep_;
    std::unique_ptr<RecordingControl> control_;
    std::unique_ptr<UpkeepThread> status_; // Without a recording, too.
};

void Recorder::StartUpkeep() {
    const auto period = UpkeepThread::kPeriod;
    std::vector<UpkeepJob> jobs;
    jobs.emplace_back("Writing the history", period,
                      [] { RecordingManager::instance()->processHistorySaveQueue(); });
    jobs.emplace_back("Erasing what is too old or too much", kRetentionPeriod,
                      [] { RecordingManager::instance()->enforceMaxRetentionTime(); });
    upkeep_ = std::make_unique<UpkeepThread>("Upkeep", std::move(jobs));
    settings_ = std::make_unique<UpkeepThread>(
        "Settings", std::vector{UpkeepJob("Reading the limits", period, &TakeRetentionSetting)});
}

void Recorder::EndHistory() {
    std::this_thread::sleep_for(kHistoryHold);
    StopUpkeep();
    try {
        RecordingManager::instance()->processHistorySaveQueue();
    } catch (const std::exception& problem) {
        GetLogger()->Warning("The last of the history was not written: %s", problem.what());
    }
}

RecorderHost::RecorderHost(HostOptions options)
    : options_(std::move(options)), watcher_([this] { TakeHangUp(); }), pipelines_(options_.file) {}

RecorderHost::~RecorderHost() = default;

/// On the signals' thread. The log first: what the reload says goes to the new file.
void RecorderHost::TakeHangUp() {
    try {
        Logger::ReopenFile();
    } catch (const std::exception& problem) {
        GetLogger()->Error("%s; the log stays in the old file", problem.what());
    }
    const std::lock_guard<std::mutex> guard(lock_);
    reload_ = true;
    asked_.notify_all();
}

int RecorderHost::Run() {
    if (!pipelines_.Read()) {
        return kBadInput;
    }
    watcher_.Watch([this] {
        const std::lock_guard<std::mutex> guard(lock_);
        stop_ = true;
        asked_.notify_all();
    });
    const int status = RunServices();
    watcher_.End();
    return status;
}

int RecorderHost::RunServices() {
    try {
        TakeRecording();
    } catch (const std::exception& problem) {
        ReportError(std::string("calvane-recorder: ") + problem.what());
        return kFailedWhileRunning;
    }
    const int status = RunPipelines();
    // The pipelines are gone, and with them the last report of data that ends.
    if (recording_) {
        recorder_->EndHistory();
    }
    recorder_ = nullptr;
    return status;
}

int RecorderHost::RunPipelines() {
    if (const int status = pipelines_.Start(); status != kDone) {
        return status;
    }
    try {
        Serve();
    } catch (const std::exception& problem) { // A card came, and the services could not be started again.
        ReportError(std::string("calvane-recorder: ") + problem.what());
        pipelines_.End();
        return kFailedWhileRunning;
    }
    return pipelines_.End();
}

/// Starts the services, and recording if there is a card that can be used.
void RecorderHost::TakeRecording() {
    recorder_ = nullptr;
    cardLooks_ = LooksOf(options_.root);
    recorder_ = std::make_unique<Recorder>(options_.root);
    recording_ = RecordingManager::_recordingDisabledReason == 0;
    if (recording_) {
        recorder_->StartUpkeep();
    } else {
        SayWhatToDo();
    }
}

void RecorderHost::SayWhatToDo() const {
    const char* const root = options_.root.c_str();
    switch (RecordingManager::_recordingDisabledReason) {
        case 4:
            GetLogger()->Warning("There is no card at %s. Mount one there (ext4, made with mkfs.ext4 -m 0)",
                                 root);
            break;
        case 5:
            GetLogger()->Warning(
                "%s holds other things than \"data\" and \"database\". Take them away, or mount an empty "
                "card",
                root);
            break;
        default:
            if (access(root, W_OK) != 0 && IsNothingMountedAt(options_.root)) {
                GetLogger()->Warning("%s is an empty place to mount a card at. Mount one there", root);
                break;
            }
            if (access(root, W_OK) != 0) {
                GetLogger()->Warning(
                    "%s cannot be written to by this program's user. Give it to that user with chown, or "
                    "mount the "
                    "card for writing",
                    root);
                break;
            }
            GetLogger()->Warning(
                "The recording at %s could not be opened, for the reason above. calvane-store verify and "
                "calvane-store rebuild look after it",
                root);
            break;
    }
}

/// Until a signal, or until a pipeline has failed. When they merely run out of data, what is recorded can still be
/// asked for.
void RecorderHost::Serve() {
    sd_notify(0, "READY=1");
    SayState();
    while (!WaitForStop(kWatchdogPeriod)) {
        if (recording_) {
            RecordingManager::instance()->awaitWriters();
        } else if (LooksOf(options_.root) != cardLooks_) {
            TakeRecording();
        }
        ReloadIfAsked();
        SayState();
        sd_notify(0, "WATCHDOG=1");
        if (pipelines_.HasFailed()) {
            break;
        }
    }
    sd_notify(0, "STOPPING=1");
}

void RecorderHost::SayState() {
    const bool isWaiting = recording_ && RecordingManager::instance()->isAwaitingClock();
    const std::string state = isWaiting    ? "STATUS=waiting for the time, which is behind the newest record"
                              : recording_ ? "STATUS=recording"
                                           : "STATUS=recording is disabled, see the log";
    if (state != saidState_) {
        sd_notify(0, state.c_str());
        saidState_ = state;
    }
}

/// What has been asked for by SIGHUP. Limits count without it, and all else only from the start on.
void RecorderHost::ReloadIfAsked() {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (!std::exchange(reload_, false)) {
            return;
        }
    }
    sd_notify(0, "RELOADING=1");
    pipelines_.Reload();
    GetLogger()->Information(
        "Limits of what is kept count as soon as they are set. The command line, the unit and the device's "
        "identity are only taken over by a restart");
    sd_notify(0, "READY=1");
}

/// Returns early when a reload is asked for.
bool RecorderHost::WaitForStop(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> guard(lock_);
    asked_.wait_for(guard, time, [this] { return stop_ || reload_; });
    return stop_;
}

} // namespace calvane_recorder
