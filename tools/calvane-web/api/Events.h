#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "RecordingClient.h"
#include "api/Query.h"
#include "http/Exchange.h"
#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"

namespace calvane_web {

/// What happens at the recorder, as server-sent events for any number of pages that look on.
///
/// One thread asks the recorder, once a second, and only while somebody looks on. A page that reads too slowly to get all
/// that is kept of the last minutes is sent away, and begins anew by itself.
///
/// Threads:  Answer from any.
/// Errors:   Busy when too many look on.
/// Lifetime: outlives the answers. Stop ends them.
class Events : private quarn::osa::Runnable {
public:
    Events();
    ~Events() override;
    Events(const Events&) = delete;
    Events& operator=(const Events&) = delete;

    Reply Answer(Query& query);
    void Stop() override;

private:
    using Clock = std::chrono::steady_clock;
    class Subscription;

    void Run() override;
    bool Look(calvane_recording::RecordingClient& client);
    void Tell(const calvane_recording::Status& status);
    void Publish(const std::string& kind, const std::string& data);
    void Send(IBodySink& sink);
    std::string FirstMessages() const;
    bool MustRun() const;

    // Of the thread.
    Clock::time_point nextLook_;
    Clock::time_point nextStatus_;
    std::string told_; ///< Of the status, what is told as soon as it changes.

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> messages_;
    std::uint64_t firstMessage_ = 0; ///< The number of the first in `messages_`.
    std::map<std::string, std::string>
        latest_; ///< What a page that comes now has to know: by kind, the message.
    unsigned int subscribers_ = 0;
    bool isStopped_ = false;

    quarn::osa::Thread thread_;
};

} // namespace calvane_web
