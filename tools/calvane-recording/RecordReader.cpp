#include "RecordReader.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace calvane_recording {
namespace {

constexpr std::uint64_t kLongestPayload = 64ULL * 1024 * 1024;
constexpr auto kLongestSilence = std::chrono::minutes(1);

std::uint64_t LittleEndian(const unsigned char* bytes, int count) {
    std::uint64_t value = 0;
    for (int i = count; i-- != 0;) {
        value = value << 8 | bytes[i];
    }
    return value;
}

} // namespace

std::uint64_t UnreadableOf(const unsigned char* payload, std::size_t length) {
    return length >= 8 ? LittleEndian(payload, 8) : 0;
}

RecordReader::RecordReader(int descriptor, std::function<bool()> isInterrupted)
    : descriptor_(descriptor), isInterrupted_(std::move(isInterrupted)) {
    const timeval pause{0, 200'000};
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &pause, sizeof pause);
}

RecordReader::~RecordReader() {
    close(descriptor_);
}

Frame RecordReader::Read() {
    Frame frame = ReadHead();
    frame.payload.resize(frame.length);
    ReadFully(frame.payload.data(), frame.payload.size());
    if (frame.kind == Frame::kEnd) {
        frame.unreadable =
            UnreadableOf(reinterpret_cast<const unsigned char*>(frame.payload.data()), frame.length);
    }
    return frame;
}

Frame RecordReader::ReadHead() {
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
    frame.length = static_cast<std::uint32_t>(length);
    return frame;
}

void RecordReader::ReadFully(void* bytes, std::size_t size) const {
    auto* place = static_cast<char*>(bytes);
    const auto begin = std::chrono::steady_clock::now();
    while (size != 0) {
        const ssize_t count = read(descriptor_, place, size);
        if (count > 0) {
            place += count;
            size -= static_cast<std::size_t>(count);
        } else if (count == 0) {
            throw std::runtime_error("The recorder ended the stream of records too early");
        } else if (errno == EAGAIN || errno == EINTR) {
            Wait(begin);
        } else {
            throw std::runtime_error(std::string("Cannot read the stream of records: ") +
                                     std::strerror(errno));
        }
    }
}

/// Nothing has come for a while.
void RecordReader::Wait(std::chrono::steady_clock::time_point since) const {
    if (isInterrupted_ && isInterrupted_()) {
        throw Interrupted();
    }
    if (std::chrono::steady_clock::now() - since > kLongestSilence) {
        throw std::runtime_error("The recorder has sent no records for a minute");
    }
}

} // namespace calvane_recording
