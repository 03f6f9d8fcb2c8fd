#include "TraceRecorder.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <nlohmann/json.hpp>

#include "calvane/graph/ForwardingSink.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/FormatText.h"
#include "quarn/osa/MutexAutoLock.h"

namespace calvane_program {

namespace {

using quarn::calvane::Buffer;
using quarn::calvane::Connection;
using quarn::calvane::Sink;
using quarn::osa::FormatText;
using quarn::osa::MutexAutoLock;

constexpr size_t kEventsCollected = 4096;

std::int64_t Nanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

std::string Microseconds(std::int64_t nanoseconds) {
    return FormatText("%lld.%03d", static_cast<long long>(nanoseconds / 1000),
                      static_cast<int>(nanoseconds % 1000));
}

std::string Quote(const std::string& text) {
    // Names may hold any bytes.
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string NameOfThisThread() {
    std::array<char, 16> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

} // namespace

struct TraceRecorder::Event {
    const std::string* what; // The constant middle of its line.
    std::int64_t start;      // In nanoseconds, as the next one.
    std::int64_t duration;
    unsigned int bytes;
};

struct TraceRecorder::ThreadLog {
    pid_t thread = gettid();
    std::string name = NameOfThisThread();
    bool nameWritten = false;
    std::vector<Event> events;
};

/// Adds an event that lasts from its construction to its destruction, however the block is left.
class TraceRecorder::Span {
public:
    Span(TraceRecorder& recorder, const std::string& what, unsigned int bytes)
        : recorder_(recorder), event_{&what, Nanoseconds(), 0, bytes} {}
    ~Span() {
        event_.duration = Nanoseconds() - event_.start;
        recorder_.Add(event_);
    }
    Span(const Span&) = delete;
    Span& operator=(const Span&) = delete;

private:
    TraceRecorder& recorder_;
    Event event_;
};

class TraceRecorder::TracedSink final : public quarn::calvane::ForwardingSink {
public:
    TracedSink(TraceRecorder& recorder, const Connection& connection, Sink* next)
        : ForwardingSink(next),
          recorder_(recorder),
          what_("\"name\":" + Quote(connection.downstream) +
                ",\"cat\":\"push\",\"args\":{\"from\":" + Quote(connection.upstream) +
                (connection.output.empty() ? "" : ",\"output\":" + Quote(connection.output)) +
                ",\"bytes\":") {}

protected:
    void Forward(Buffer* buffer) override {
        const Span span(recorder_, what_, buffer->GetLength());
        ForwardingSink::Forward(buffer);
    }

private:
    TraceRecorder& recorder_;
    const std::string what_;
};

TraceRecorder::TraceRecorder(const std::string& path) : path_(path), file_(std::fopen(path.c_str(), "we")) {
    if (!file_) {
        throw quarn::osa::Exception("Cannot create the trace file %s: %s", path.c_str(),
                                    quarn::osa::ErrnoText(errno).c_str());
    }
    WriteText("[\n{\"ph\":\"M\",\"pid\":" + std::to_string(getpid()) +
              ",\"name\":\"process_name\",\"args\":{\"name\":\"calvane\"}}");
}

TraceRecorder::~TraceRecorder() = default;

Sink* TraceRecorder::OnConnect(const Connection& connection, Sink* sink) {
    sinks_.push_back(std::make_unique<TracedSink>(*this, connection, sink));
    return sinks_.back()->GetSink();
}

void TraceRecorder::Finish() {
    const MutexAutoLock lock(lock_);
    for (const auto& log : logs_) {
        Write(*log);
    }
    WriteText("\n]\n");
    if (std::fclose(file_.release()) != 0 && failure_ == 0) {
        failure_ = errno;
    }
    if (failure_ != 0) {
        throw quarn::osa::Exception("The trace file %s is incomplete: %s", path_.c_str(),
                                    quarn::osa::ErrnoText(failure_).c_str());
    }
}

TraceRecorder::ThreadLog& TraceRecorder::LogOfThisThread() {
    thread_local ThreadLog* log = nullptr; // There is one recorder in the program.
    if (log == nullptr) {
        auto made = std::make_unique<ThreadLog>();
        made->events.reserve(kEventsCollected);
        log = made.get();
        const MutexAutoLock lock(lock_);
        logs_.push_back(std::move(made));
    }
    return *log;
}

void TraceRecorder::Add(const Event& event) {
    ThreadLog& log = LogOfThisThread();
    log.events.push_back(event);
    if (log.events.size() == kEventsCollected) {
        static const std::string kWriting = R"("name":"writing the trace","cat":"trace","args":{"bytes":)";
        const std::int64_t start = Nanoseconds();
        const MutexAutoLock lock(lock_);
        Write(log);
        log.events.push_back({&kWriting, start, Nanoseconds() - start, 0});
    }
}

// With the lock held.
void TraceRecorder::Write(ThreadLog& log) {
    const std::string thread =
        "\"pid\":" + std::to_string(getpid()) + ",\"tid\":" + std::to_string(log.thread) + ",";
    std::string text;
    if (!log.nameWritten) {
        text = ",\n{\"ph\":\"M\"," + thread +
               "\"name\":\"thread_name\",\"args\":{\"name\":" + Quote(log.name) + "}}";
        log.nameWritten = true;
    }
    for (const Event& event : log.events) {
        text += ",\n{\"ph\":\"X\"," + thread + "\"ts\":" + Microseconds(event.start) +
                ",\"dur\":" + Microseconds(event.duration) + "," + *event.what + std::to_string(event.bytes) +
                "}}";
    }
    log.events.clear();
    WriteText(text);
}

void TraceRecorder::WriteText(const std::string& text) {
    if (failure_ == 0 && std::fwrite(text.data(), 1, text.size(), file_.get()) != text.size()) {
        failure_ = errno;
    }
}

} // namespace calvane_program
