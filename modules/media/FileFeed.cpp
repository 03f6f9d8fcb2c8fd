#include "FileFeed.h"

#include <utility>

namespace calvane_media {

FileFeed::FileFeed(const InputSettings& settings, bool loops) : input_(settings), loops_(loops) {
    input_.Open();
}

FeedEvent FileFeed::Describe() const {
    FeedEvent event;
    event.type = FeedEvent::Type::Opened;
    event.streams = input_.GetStreams();
    event.isLive = false;
    event.duration = input_.GetDuration();
    return event;
}

void FileFeed::Start(const std::set<StreamKind>& kinds) {
    kinds_ = kinds;
    input_.Select(kinds_);
}

FeedEvent FileFeed::Next() {
    if (!announced_) {
        announced_ = true;
        return Describe();
    }
    FeedEvent event;
    PacketPtr packet = MakePacket();
    switch (input_.Read(*packet)) {
        case MediaInput::Status::Packet:
            hasPackets_ = true;
            event.type = FeedEvent::Type::Packet;
            event.packet = std::move(packet);
            break;
        case MediaInput::Status::Damaged:
            event.type = FeedEvent::Type::Damaged;
            event.text = input_.GetProblem();
            break;
        case MediaInput::Status::End:
            return End();
        case MediaInput::Status::Failed:
            event.type = FeedEvent::Type::Failed;
            event.text = "Reading " + input_.GetName() + " failed: " + input_.GetProblem();
            break;
        case MediaInput::Status::Nothing:
            break;
    }
    return event;
}

FeedEvent FileFeed::End() {
    FeedEvent event;
    event.type = FeedEvent::Type::End;
    if (!loops_) {
        return event;
    }
    if (!hasPackets_) {
        event.type = FeedEvent::Type::Failed;
        event.text = input_.GetName() + " has no packets to repeat";
        return event;
    }
    hasPackets_ = false;
    try {
        input_.Open();
        input_.Select(kinds_);
        return Describe();
    } catch (const std::exception& problem) {
        event.type = FeedEvent::Type::Failed;
        event.text = problem.what();
        return event;
    }
}

} // namespace calvane_media
