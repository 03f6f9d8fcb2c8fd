#pragma once

#include "MediaInput.h"
#include "PacketFeed.h"

namespace calvane_media {

/// Reads a file, or what the library generates, on the thread that asks.
class FileFeed : public PacketFeed {
public:
    /// Opens it; see MediaInput for what is thrown. `loops`: at its end it is opened again.
    FileFeed(const InputSettings& settings, bool loops);

    /// The event that the first call of Next returns as well.
    FeedEvent Describe() const;
    void Start(const std::set<StreamKind>& kinds) override;
    FeedEvent Next() override;

private:
    FeedEvent End();

    MediaInput input_;
    const bool loops_;
    std::set<StreamKind> kinds_;
    bool announced_ = false;
    bool hasPackets_ = false; // Since it was opened.
};

} // namespace calvane_media
