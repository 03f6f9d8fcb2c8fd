#include "LiveFeed.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace calvane_media {

using namespace std::chrono_literals;

namespace {

constexpr unsigned int kStackBytes = 1024 * 1024; // The library probes codecs on it.
constexpr std::size_t kMostBytes = std::size_t{16} << 20;
constexpr std::size_t kMostEvents = 1024;
constexpr auto kShortestPause = 500ms;
constexpr auto kLongestPause = 30s;
constexpr std::int64_t kSoundMicroseconds = 10'000'000;

} // namespace

LiveFeed::LiveFeed(const std::string& name, const InputSettings& settings, bool reconnects)
    : reconnects_(reconnects),
      timeoutMicroseconds_(settings.timeoutMicroseconds),
      input_(settings),
      thread_(name.c_str(), this, kStackBytes, 0) {}

LiveFeed::~LiveFeed() {
    LiveFeed::Stop();
    thread_.Join();
}

void LiveFeed::Start(const std::set<StreamKind>& kinds) {
    kinds_ = kinds;
    thread_.Run();
}

FeedEvent LiveFeed::Next() {
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait_for(guard, 100ms, [this] { return !events_.empty(); });
    if (events_.empty()) {
        return {};
    }
    FeedEvent event = std::move(events_.front());
    events_.pop_front();
    if (event.packet) {
        bytes_ -= static_cast<std::size_t>(event.packet->size);
    }
    changed_.notify_all();
    return event;
}

void LiveFeed::Run() {
    std::chrono::milliseconds pause = kShortestPause;
    for (;;) {
        FeedEvent lost;
        lost.type = FeedEvent::Type::Lost;
        opened_ = lastPacket_ = 0;
        try {
            if (!ReadUntilLost()) {
                return;
            }
            lost.text = input_.GetName() + " is lost: " + input_.GetProblem();
        } catch (const std::exception& problem) {
            lost.text = problem.what();
        }
        if (!reconnects_) {
            lost.type = lastPacket_ != 0 ? FeedEvent::Type::End : FeedEvent::Type::Failed;
            Send(std::move(lost));
            return;
        }
        if (lastPacket_ - opened_ > kSoundMicroseconds) {
            pause = kShortestPause;
        }
        lost.text += "; next attempt in " + std::to_string(pause.count()) + " ms";
        if (!Send(std::move(lost)) || !Pause(pause)) {
            return;
        }
        pause = std::min<std::chrono::milliseconds>(2 * pause, kLongestPause);
    }
}

void LiveFeed::Stop() {
    input_.Cancel();
    const std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
    changed_.notify_all();
}

/// False when there is nobody left to read for.
bool LiveFeed::ReadUntilLost() {
    input_.Open();
    input_.Select(kinds_);
    FeedEvent event;
    event.type = FeedEvent::Type::Opened;
    event.streams = input_.GetStreams();
    event.isLive = input_.IsLive();
    event.duration = input_.GetDuration();
    event.time = input_.GetBeginning();
    opened_ = SteadyNow();
    std::int64_t lastNews = opened_;
    while (Send(std::move(event))) {
        event = {};
        MediaInput::Status status = MediaInput::Status::Nothing;
        PacketPtr packet = MakePacket();
        while ((status = input_.Read(*packet)) == MediaInput::Status::Nothing) {
            if (SteadyNow() - lastNews > timeoutMicroseconds_) {
                throw std::runtime_error(input_.GetName() + " is silent");
            }
            if (!Pause(2ms)) {
                return false;
            }
        }
        const bool isOver = status == MediaInput::Status::End || status == MediaInput::Status::Failed;
        if (isOver && input_.IsLive()) {
            return true;
        }
        if (isOver) { // To open it again would be to begin it again.
            event.type = status == MediaInput::Status::End ? FeedEvent::Type::End : FeedEvent::Type::Failed;
            event.text = input_.GetName() + " is lost: " + input_.GetProblem();
            Send(std::move(event));
            return false;
        }
        if (status == MediaInput::Status::Damaged) {
            event.type = FeedEvent::Type::Damaged;
            event.text = input_.GetProblem();
        } else {
            lastNews = lastPacket_ = SteadyNow();
            event.type = FeedEvent::Type::Packet;
            event.time = UtcNow();
            event.packet = std::move(packet);
        }
    }
    return false;
}

/// False when it was cut short since nobody wants any more.
bool LiveFeed::Pause(std::chrono::milliseconds pause) {
    std::unique_lock<std::mutex> guard(lock_);
    return !changed_.wait_for(guard, pause, [this] { return stopping_; });
}

/// Waits for room. False when nobody wants any more.
bool LiveFeed::Send(FeedEvent event) {
    const std::size_t size = event.packet ? static_cast<std::size_t>(event.packet->size) : 0;
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard,
                  [this] { return stopping_ || (bytes_ < kMostBytes && events_.size() < kMostEvents); });
    if (stopping_) {
        return false;
    }
    bytes_ += size;
    events_.push_back(std::move(event));
    changed_.notify_all();
    return true;
}

} // namespace calvane_media
