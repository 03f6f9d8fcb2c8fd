#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

#include "MediaInput.h"
#include "PacketFeed.h"
#include "quarn/osa/Runnable.h"
#include "quarn/osa/Thread.h"

namespace calvane_media {

/// Reads an address or a device on a thread of its own, so that whoever asks for packets never waits for the network. An
/// input that cannot be opened, ends or is silent for too long is opened again after a pause that grows from half a
/// second to 30 s, and begins anew once packets have come for 10 s.
///
/// Lifetime: destruction ends what the library waits for at the moment.
class LiveFeed : public PacketFeed, private quarn::osa::Runnable {
public:
    /// `reconnects` false: what is lost has ended, and what cannot be opened has failed.
    LiveFeed(const std::string& name, const InputSettings& settings, bool reconnects);
    ~LiveFeed() override;

    void Start(const std::set<StreamKind>& kinds) override;
    FeedEvent Next() override;

private:
    void Run() override;
    void Stop() override;
    bool ReadUntilLost();
    bool Pause(std::chrono::milliseconds pause);
    bool Send(FeedEvent event);

    const bool reconnects_;
    const std::int64_t timeoutMicroseconds_;
    MediaInput input_; // The thread's, once it runs.
    std::set<StreamKind> kinds_;
    std::int64_t lastPacket_ = 0; // By the steady clock.
    std::int64_t opened_ = 0;     // The same.

    std::mutex lock_;
    std::condition_variable changed_;
    // Guarded by lock_.
    std::deque<FeedEvent> events_;
    std::size_t bytes_ = 0; // Of the packets among them.
    bool stopping_ = false;

    quarn::osa::Thread thread_;
};

} // namespace calvane_media
