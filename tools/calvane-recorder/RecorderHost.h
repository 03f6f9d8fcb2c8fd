#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "pipelines/SignalWatcher.h"

namespace calvane_program {
class CheckedDescription;
class DescribedPipelines;
} // namespace calvane_program

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
///           and erases; one that reads the settings. Stopping comes from the signals' thread.
/// Lifetime: Run once.
class RecorderHost {
public:
    /// Before any other thread is made.
    explicit RecorderHost(HostOptions options);
    ~RecorderHost();

    /// Until SIGTERM or SIGINT, or until a pipeline fails. Returns the exit status.
    int Run();

private:
    int RunServices(calvane_program::CheckedDescription* description);
    int RunPipelines(calvane_program::DescribedPipelines& pipelines);
    void TakeRecording();
    void SayWhatToDo() const;
    void SayState();
    bool WaitForStop(std::chrono::milliseconds time);
    void Serve(calvane_program::DescribedPipelines* pipelines);
    int EndPipelines(calvane_program::DescribedPipelines& pipelines) const;

    const HostOptions options_;
    calvane_program::SignalWatcher watcher_;
    std::unique_ptr<Recorder> recorder_;
    std::string saidState_;  // To systemd.
    bool recording_ = false; // Otherwise there are only the services.
    std::string cardLooks_;  // When it was tried last.

    std::mutex lock_;
    std::condition_variable stopped_;
    bool stop_ = false; // Guarded by lock_.
};

} // namespace calvane_recorder
