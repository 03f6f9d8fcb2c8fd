#include "PacketData.h"

#include <new>
#include <utility>

namespace calvane_media {

PacketData::PacketData(PacketPtr packet)
    : IBufferData(packet->data, static_cast<unsigned int>(packet->size)), packet_(std::move(packet)) {}

unsigned char* PacketData::GetWritablePtr() {
    if (av_packet_make_writable(packet_.get()) < 0) {
        throw std::bad_alloc();
    }
    return packet_->data;
}

} // namespace calvane_media
