#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "calvane/graph/IConnectionTap.h"
#include "quarn/osa/Mutex.h"

namespace calvane_program {

/// Writes a timeline of every push to a file, in the trace-event format of the Chrome browser, which Perfetto
/// and others open: an array of JSON objects, one a line; "X" events with `ts` and `dur` in microseconds of the
/// monotonic clock, named after the plugin that receives, and the names of the threads.
///
/// Each thread collects its events and writes many at a time, which shows in the timeline too. What a killed
/// process leaves lacks at most what its threads had collected, and the closing bracket, which readers allow.
///
/// Threads:  OnConnect while loading; pushes on any; Finish when no plugin pushes any more.
/// Errors:   the constructor throws Exception when the file cannot be created. When it cannot be written, the
///           rest of the events is dropped, and Finish throws.
/// Lifetime: outlives the pipelines and all threads that push through them.
class TraceRecorder final : public quarn::calvane::IConnectionTap {
public:
    explicit TraceRecorder(const std::string& path);
    ~TraceRecorder() override;
    TraceRecorder(const TraceRecorder&) = delete;
    TraceRecorder& operator=(const TraceRecorder&) = delete;

    quarn::calvane::Sink* OnConnect(const quarn::calvane::Connection& connection,
                                    quarn::calvane::Sink* sink) override;
    /// Writes what the threads still have and closes the file.
    void Finish();

private:
    class TracedSink;
    class Span;
    struct Event;
    struct ThreadLog;
    struct CloseFile {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    ThreadLog& LogOfThisThread();
    void Add(const Event& event);
    void Write(ThreadLog& log);
    void WriteText(const std::string& text);

    const std::string path_;
    std::vector<std::unique_ptr<TracedSink>> sinks_;

    quarn::osa::Mutex lock_{"Trace"};
    std::unique_ptr<std::FILE, CloseFile> file_;
    int failure_ = 0; // The errno of the first write that failed.
    std::vector<std::unique_ptr<ThreadLog>> logs_;
};

} // namespace calvane_program
