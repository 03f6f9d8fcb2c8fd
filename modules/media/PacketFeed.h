#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "InputStream.h"
#include "Library.h"

namespace calvane_media {

/// What an input has come to.
struct FeedEvent {
    enum class Type {
        Nothing, ///< No news; ask again.
        Opened,  ///< Packets of these streams follow.
        Packet,
        Damaged, ///< Some input was passed over.
        Lost,    ///< The input is gone; it is opened again later.
        End,     ///< That was all.
        Failed,  ///< There will be no more; `text` says why.
    };

    Type type = Type::Nothing;
    PacketPtr packet;
    std::int64_t time = 0; ///< In UTC: when the packet came, or the input began.
    std::vector<InputStream> streams;
    bool isLive = false;       ///< Of an opened input, see MediaInput.
    std::int64_t duration = 0; ///< The same.
    std::string text;          ///< What happened, for the log.
};

/// Gives the packets of an input, one after the other.
///
/// Threads: one.
class PacketFeed {
public:
    PacketFeed() = default;
    virtual ~PacketFeed() = default;
    PacketFeed(const PacketFeed&) = delete;
    PacketFeed& operator=(const PacketFeed&) = delete;

    /// Of which kinds packets are wanted. Before the first call of Next.
    virtual void Start(const std::set<StreamKind>& kinds) = 0;
    /// Returns within a tenth of a second.
    virtual FeedEvent Next() = 0;
};

} // namespace calvane_media
