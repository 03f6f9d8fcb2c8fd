#pragma once

#include "Library.h"
#include "calvane/buffer/IBufferData.h"

namespace calvane_media {

/// The memory of a packet, as it came from the library: nothing is copied. Whoever writes to it gets a copy of its own
/// if the library still looks at the same bytes.
class PacketData : public quarn::calvane::IBufferData {
public:
    explicit PacketData(PacketPtr packet);

    const unsigned char* GetPtr() const override { return packet_->data; }
    unsigned char* GetWritablePtr() override;

private:
    const PacketPtr packet_;
};

} // namespace calvane_media
