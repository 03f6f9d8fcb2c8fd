#include "RecordReader.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace calvane_recording {
namespace {

constexpr std::uint64_t kLongestPayload = 64ULL * 1024 * 1024;

std::uint64_t LittleEndian(const unsigned char* bytes, int count) {
    std::uint64_t value = 0;
    for (int i = count; i-- != 0;) {
        value = value << 8 | bytes[i];
    }
    return value;
}

} // namespace

RecordReader::~RecordReader() {
    close(descriptor_);
}

Frame RecordReader::Read() {
    std::array<unsigned char, 24> header{};
    ReadFully(header.data(), header.size());
    const std::uint64_t length = LittleEndian(&header[4], 4);
    if (header[0] > Frame::kInfo || header[1] != 2 || length > kLongestPayload) {
        throw std::runtime_error("The stream of records is none that this program knows");
    }
    Frame frame;
    frame.kind = static_cast<Frame::Kind>(header[0]);
    frame.flags = static_cast<unsigned int>(LittleEndian(&header[2], 2));
    frame.time = static_cast<Time>(LittleEndian(&header[8], 8));
    frame.compositionOffset = static_cast<std::int64_t>(LittleEndian(&header[16], 8));
    frame.payload.resize(static_cast<std::size_t>(length));
    ReadFully(frame.payload.data(), frame.payload.size());
    if (frame.kind == Frame::kEnd && length >= 8) {
        frame.unreadable = LittleEndian(reinterpret_cast<const unsigned char*>(frame.payload.data()), 8);
    }
    return frame;
}

void RecordReader::ReadFully(void* bytes, std::size_t size) const {
    auto* place = static_cast<char*>(bytes);
    while (size != 0) {
        const ssize_t count = read(descriptor_, place, size);
        if (count > 0) {
            place += count;
            size -= static_cast<std::size_t>(count);
        } else if (count == 0) {
            throw std::runtime_error("The recorder ended the stream of records too early");
        } else if (errno != EINTR) {
            throw std::runtime_error(std::string("Cannot read the stream of records: ") +
                                     std::strerror(errno));
        }
    }
}

} // namespace calvane_recording
