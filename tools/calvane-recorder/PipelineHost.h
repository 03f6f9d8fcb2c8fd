#pragma once

#include <memory>
#include <string>

namespace calvane_recorder {

/// Writes one line: to the log where systemd's journal reads this process, so that the line has its priority there, and
/// to standard error otherwise.
void ReportError(const std::string& line);

/// The recorder's pipelines, and their exchange for those of a changed description.
///
/// Threads:  one.
/// Errors:   what is wrong with a description is reported with its place; after a reload, in the log.
/// Lifetime: Read -> Start -> Reload, any number of times -> End. Nothing but End leaves it without pipelines.
class PipelineHost {
public:
    /// `path` of the description; without one there are no pipelines, and all below succeeds.
    explicit PipelineHost(std::string path);
    ~PipelineHost();
    PipelineHost(const PipelineHost&) = delete;
    PipelineHost& operator=(const PipelineHost&) = delete;

    /// Reads the description and checks it. Returns whether it is good; throws what IniFile throws.
    bool Read();
    /// Returns the exit status of a process that could not start them, or kDone.
    int Start();
    /// Reads the description again. If it says something else and is good, its pipelines take the place of those that
    /// run, which then end in order; otherwise these go on. If the new ones cannot be started, the old ones are
    /// started again.
    void Reload();
    /// Whether any pipeline has failed, or none could be started again.
    bool HasFailed() const;
    /// Ends the pipelines in order. Returns the exit status.
    int End();

private:
    struct Pipelines;

    void Exchange(std::unique_ptr<Pipelines> next);

    const std::string path_;
    std::unique_ptr<Pipelines> pipelines_;
    bool isLost_ = false; // None runs although one should.
};

} // namespace calvane_recorder
