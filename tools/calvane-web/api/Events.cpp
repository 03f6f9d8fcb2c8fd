#include "api/Events.h"

#include <memory>

#include "Answers.h"
#include "api/ClientPool.h"

namespace calvane_web {
namespace {

using calvane_recording::RecordingClient;
using calvane_recording::Span;
using calvane_recording::Status;
using calvane_recording::ToJson;
using nlohmann::json;

constexpr unsigned int kMostSubscribers = 32; // Each has a thread of the server's.
constexpr std::size_t kMostMessages = 256;
constexpr auto kLookPeriod = std::chrono::seconds(1);
constexpr auto kStatusPeriod = std::chrono::seconds(10);
constexpr auto kSilence = std::chrono::seconds(15);
constexpr auto kCallTime = std::chrono::seconds(5);

std::string TextOf(const json& facts) {
    return facts.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string Message(const std::string& kind, const std::string& data) {
    return "event: " + kind + "\ndata: " + data + "\n\n";
}

} // namespace

/// Counts one who looks on, from the answer's begin to its end.
class Events::Subscription {
public:
    explicit Subscription(Events& events) : events_(events) {
        const std::lock_guard<std::mutex> lock(events_.mutex_);
        if (events_.subscribers_ == kMostSubscribers) {
            throw Busy("Too many pages look on: at most " + std::to_string(kMostSubscribers));
        }
        ++events_.subscribers_;
        events_.changed_.notify_all();
    }
    ~Subscription() {
        const std::lock_guard<std::mutex> lock(events_.mutex_);
        --events_.subscribers_;
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

private:
    Events& events_;
};

Events::Events() : thread_("events", this, 0, 0) {
    thread_.Run();
}

Events::~Events() {
    Events::Stop();
    thread_.Join();
}

void Events::Stop() {
    const std::lock_guard<std::mutex> lock(mutex_);
    isStopped_ = true;
    changed_.notify_all();
}

Reply Events::Answer(Query& query) {
    query.RequireAllTaken();
    Reply reply;
    reply.type = "text/event-stream";
    reply.headers = {{"Cache-Control", "no-store"}, {"X-Accel-Buffering", "no"}};
    reply.write = [this, subscription = std::make_shared<Subscription>(*this)](IBodySink& sink) {
        Send(sink);
    };
    return reply;
}

void Events::Send(IBodySink& sink) {
    std::unique_lock<std::mutex> lock(mutex_);
    std::uint64_t next = firstMessage_ + messages_.size();
    std::string text = ": calvane\n\n" + FirstMessages();
    while (!isStopped_) {
        lock.unlock();
        sink.Write(text);
        if (!sink.IsConnected()) {
            return;
        }
        lock.lock();
        changed_.wait_for(lock, kSilence,
                          [&] { return isStopped_ || next < firstMessage_ + messages_.size(); });
        if (next < firstMessage_) {
            return; // It has missed some.
        }
        text.clear();
        for (; next < firstMessage_ + messages_.size(); ++next) {
            text += messages_[static_cast<std::size_t>(next - firstMessage_)];
        }
        if (text.empty()) {
            text = ": still here\n\n";
        }
    }
}

std::string Events::FirstMessages() const {
    std::string all;
    for (const auto& [kind, message] : latest_) {
        all += message;
    }
    return all;
}

void Events::Publish(const std::string& kind, const std::string& data) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::string message = Message(kind, data);
    if (kind == "gone") {
        latest_.clear();
    } else if (kind == "back") {
        latest_.erase("gone");
    }
    if (kind == "gone" || kind == "status" || kind == "recorded") {
        latest_[kind] = message;
    }
    messages_.push_back(std::move(message));
    if (messages_.size() > kMostMessages) {
        messages_.pop_front();
        ++firstMessage_;
    }
    changed_.notify_all();
}

bool Events::MustRun() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return !isStopped_ && subscribers_ != 0;
}

void Events::Run() {
    bool isGone = false;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return isStopped_ || subscribers_ != 0; });
            if (isStopped_) {
                return;
            }
        }
        try {
            RecordingClient client(kCallTime);
            client.GetStatus();
            if (isGone) {
                isGone = false;
                Publish("back", "{}");
            }
            told_.clear();
            client.Watch([](unsigned int, bool) {}, // The status tells it, too.
                         [this](unsigned int track, const Span& span) {
                             Publish("erased", TextOf({{"track", calvane_recording::NameOf(track)},
                                                       {"from", ToJson(span.first)},
                                                       {"before", ToJson(span.last)}}));
                         },
                         [&] { return Look(client); });
        } catch (const std::exception& problem) {
            if (!isGone) {
                isGone = true;
                Publish("gone", TextOf({{"error", problem.what()}}));
            }
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait_for(lock, kLookPeriod, [this] { return isStopped_; });
        }
    }
}

/// Returns whether to go on.
bool Events::Look(RecordingClient& client) {
    const auto now = Clock::now();
    if (now >= nextLook_) {
        nextLook_ = now + kLookPeriod;
        Tell(client.GetStatus());
    }
    return MustRun();
}

void Events::Tell(const Status& status) {
    json newest = json::object();
    json told{status.state, status.problem, status.erasesFirst};
    for (const Status::Track& track : status.tracks) {
        if (!track.span.IsEmpty()) {
            newest[calvane_recording::NameOf(track.number)] = ToJson(track.span.last);
        }
        told.push_back(track.present);
        told.push_back(track.refused);
    }
    const std::string recorded = Message("recorded", TextOf(newest));
    bool isNew = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isNew = latest_["recorded"] != recorded;
    }
    if (isNew) {
        Publish("recorded", TextOf(newest));
    }
    if (TextOf(told) != told_ || Clock::now() >= nextStatus_) {
        told_ = TextOf(told);
        nextStatus_ = Clock::now() + kStatusPeriod;
        Publish("status", TextOf(calvane_recording::StatusAnswer(status)));
    }
}

} // namespace calvane_web
