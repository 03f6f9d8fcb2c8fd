#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "PipelineHost.h"
#include "pipelines/SignalWatcher.h"

namespace calvane_recorder {

class Recorder;

struct HostOptions {
    std::string root = "/media/sd/";
    std::string file; ///< The description of the pipelines; empty for none.
};

/// The recorder's process: keeps the recording, its services and the pipelines that feed it, from the first line to
/// the orderly end.
///
/// Threads:  the main one, which feeds systemd's watchdog as long as the tracks take records; one that writes the history
///           and erases; one that reads the settings. Stopping and reloading come from the signals' thread.
/// Lifetime: Run once.
class RecorderHost {
public:
    /// Before any other thread is made.
    explicit RecorderHost(HostOptions options);
    ~RecorderHost();

    /// Until SIGTERM or SIGINT, or until a pipeline fails. Returns the exit status.
    int Run();

private:
    void TakeHangUp();
    int RunServices();
    int RunPipelines();
    void TakeRecording();
    void SayWhatToDo() const;
    void SayState();
    bool WaitForStop(std::chrono::milliseconds time);
    void Serve();
    void ReloadIfAsked();

    const HostOptions options_;
    calvane_program::SignalWatcher watcher_;
    PipelineHost pipelines_;
    std::unique_ptr<Recorder> recorder_;
    std::string saidState_;  // To systemd.
    bool recording_ = false; // Otherwise there are only the services.
    std::string cardLooks_;  // When it was tried last.

    std::mutex lock_;
    std::condition_variable asked_;
    bool stop_ = false;   // Guarded by lock_.
    bool reload_ = false; // Guarded by lock_.
};

} // namespace calvane_recorder
